// What was recorded, unpacked into columns. story.cpp writes it in the same order.

const BIT = {toOwner: 4, failed: 8, malformed: 16, begin: 32, end: 64, cut: 128};
const KIND = {message: 0, up: 1, down: 2, refused: 3};
const isBad = (bits) => (bits & (BIT.failed | BIT.malformed)) !== 0 || (bits & 3) === KIND.refused;

async function unpacked(id) {
  const text = document.getElementById(id).textContent;
  const packed = Uint8Array.from(atob(text), (letter) => letter.charCodeAt(0));
  const stream = new Blob([packed]).stream().pipeThrough(new DecompressionStream("deflate"));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

async function unpackedText(id) {
  return new TextDecoder().decode(await unpacked(id));
}

// Numbers of 7 bits a byte, the lowest first; they stay below 2^53.
class Numbers {
  constructor(bytes) { this.bytes = bytes; this.at = 0; }
  next() {
    let value = 0;
    let factor = 1;
    for (;;) {
      const byte = this.bytes[this.at++];
      value += (byte & 127) * factor;
      if (byte < 128) { return value; }
      factor *= 128;
    }
  }
  nextSigned() {
    const value = this.next();
    return value % 2 === 0 ? value / 2 : -(value + 1) / 2;
  }
}

class Story {
  static async read() {
    const story = new Story();
    story.about = JSON.parse(await unpackedText("about"));
    story.readRows(new Numbers(await unpacked("rows")));
    const handles = new Numbers(await unpacked("handles"));
    story.handles = Float64Array.from({length: story.about.named}, () => handles.next());
    story.names = (await unpackedText("names")).split("\n");
    story.readBatches(new Numbers(await unpacked("batches")));
    story.findLinks();
    story.processes = story.about.runs.filter((run) => run.process > 0);
    return story;
  }

  readRows(from) {
    const n = this.length = this.about.records;
    for (const [name, kind] of [["time", Float64Array], ["steady", Float64Array], ["lane", Uint32Array],
      ["bits", Uint8Array], ["type", Uint8Array], ["count", Uint32Array], ["size", Uint32Array],
      ["lost", Float64Array], ["namedFrom", Uint32Array]]) {
      this[name] = new kind(n + 1);
    }
    const named = [];
    let time = 0;
    for (let i = 0; i < n; i++) {
      time += from.nextSigned();
      this.time[i] = time; // nanoseconds since the first record
      this.steady[i] = i === 0 ? time : Math.max(time, this.steady[i - 1]);
      this.lane[i] = from.next();
      this.bits[i] = from.next();
      this.type[i] = from.next();
      this.count[i] = from.next();
      this.size[i] = from.next();
      this.lost[i] = from.next();
      this.namedFrom[i] = named.length;
      let id = 0;
      for (let left = from.next(); left > 0; left--) {
        id += from.nextSigned();
        named.push(id);
      }
    }
    this.namedFrom[n] = named.length;
    this.named = Uint32Array.from(named);
  }

  readBatches(from) {
    this.batches = Array.from({length: this.about.batches}, () => (
      {lane: from.next(), type: from.next(), first: from.next(), last: from.next(), end: from.next()}));
  }

  // When each lane's link was up: pairs of records.
  findLinks() {
    this.links = this.about.lanes.map(() => []);
    const open = new Map();
    for (let i = 0; i < this.length; i++) {
      const lane = this.lane[i];
      const kind = this.bits[i] & 3;
      if (kind === KIND.down) {
        this.links[lane].push([open.get(lane) ?? 0, i]);
        open.delete(lane);
      } else if (kind !== KIND.refused && !open.has(lane)) {
        open.set(lane, i);
      }
    }
    for (const [lane, first] of open) { // as long as somebody recorded it
      this.links[lane].push([first, this.about.runs[this.about.lanes[lane].run].last]);
    }
  }

  laneTitle(lane) {
    const of = this.about.lanes[lane];
    const process = this.about.runs[of.run].process;
    return {first: `${of.program || "owner"}[${of.pid}]`,
      second: `class ${of.class}` + (of.by === "owner" ? ", told by itself"
        : (this.processes.length > 1 ? `, process ${process}` : "") +
          `, owner ${of.owners.slice(0, 10).join(", ")}` + (of.owners.length > 10 ? ", …" : ""))};
  }

  label(i) {
    const bits = this.bits[i];
    const kind = bits & 3;
    if (kind !== KIND.message) { return ["", "UP", "DOWN", "REFUSED"][kind]; }
    const flags = [bits & BIT.begin ? "begin" : "", bits & BIT.end ? "end" : ""].filter(Boolean).join(",");
    return this.about.types[this.type[i]] + (this.count[i] > 0 ? ` ${this.count[i]}` : "") +
      (flags ? ` [${flags}]` : "") + (bits & BIT.malformed ? " MALFORMED" : bits & BIT.failed ? " FAILED" : "");
  }

  // Local time of day with as many digits as `unit` nanoseconds need.
  clock(ns, unit) {
    const at = BigInt(this.about.began) + BigInt(Math.round(ns));
    const date = new Date(Number(at / 1000000n));
    const two = (n) => String(n).padStart(2, "0");
    const digits = unit >= 1e9 ? 0 : Math.min(9, Math.ceil(9 - Math.log10(Math.max(unit, 1))));
    const fraction = String(at % 1000000000n).padStart(9, "0").slice(0, digits);
    return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}` +
      (digits > 0 ? `.${fraction}` : "");
  }

  // All that is known of a record: its line, then a line for each AC or record, as l2vpnctl monitor -v has them.
  async details(i) {
    const parts = this.about.parts;
    let part = parts.length - 1;
    while (parts[part] > i) { part--; }
    if (this.openPart !== part) {
      this.openTexts = (await unpackedText(`part${part}`)).split("\0");
      this.openPart = part;
    }
    return this.openTexts[i - parts[part]].trimEnd().split("\n");
  }
}

// Which records are wanted: an array of their places, in order.
function choose(story, wanted) {
  const text = wanted.name.toLowerCase();
  const glob = /[*?]/.test(text) &&
    new RegExp("^" + text.replace(/[.+^${}()|[\]\\]/g, "\\$&").replace(/\*/g, ".*").replace(/\?/g, ".") + "$");
  const isNamed = wanted.handle !== null || text !== "";
  let named = null;
  if (isNamed) {
    named = new Uint8Array(story.about.named);
    for (let id = 0; id < named.length; id++) {
      const name = story.names[id].toLowerCase();
      named[id] = (wanted.handle === null || story.handles[id] === wanted.handle) &&
        (text === "" || (glob ? glob.test(name) : name.includes(text))) ? 1 : 0;
    }
  }
  const lanes = story.about.lanes.map((lane, i) => (wanted.owner === null || wanted.owner === i) &&
    (wanted.class === null || wanted.class === lane.class));
  const found = new Uint32Array(story.length);
  let n = 0;
  for (let i = 0; i < story.length; i++) {
    const bits = story.bits[i];
    if (!lanes[story.lane[i]] || (wanted.failures && !isBad(bits)) ||
      (wanted.type !== null && ((bits & 3) !== KIND.message || story.type[i] !== wanted.type))) {
      continue;
    }
    if (isNamed) {
      let at = story.namedFrom[i];
      while (at < story.namedFrom[i + 1] && named[story.named[at]] === 0) { at++; }
      if (at === story.namedFrom[i + 1]) { continue; }
    }
    found[n++] = i;
  }
  return found.slice(0, n);
}
