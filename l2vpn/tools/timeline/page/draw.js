// The picture itself.

class Picture extends Places {
  constructor(canvas, story) {
    super(canvas, story);
    this.context = canvas.getContext("2d");
  }

  draw() {
    const ratio = window.devicePixelRatio || 1;
    const width = Math.round(this.canvas.clientWidth * ratio);
    const height = Math.round(this.canvas.clientHeight * ratio);
    if (this.canvas.width !== width || this.canvas.height !== height) {
      this.canvas.width = width;
      this.canvas.height = height;
    }
    this.keepInside();
    const style = getComputedStyle(document.documentElement);
    const colours = new Map();
    this.colour = (name) => {
      if (!colours.has(name)) { colours.set(name, style.getPropertyValue(`--${name}`).trim()); }
      return colours.get(name);
    };
    const c = this.context;
    c.setTransform(ratio, 0, 0, ratio, 0, 0);
    c.clearRect(0, 0, this.canvas.clientWidth, this.canvas.clientHeight);
    c.font = '12px system-ui, "Segoe UI", "DejaVu Sans", sans-serif';
    c.textBaseline = "middle";
    this.from = this.rankAt(this.top);
    this.to = lowerBound(this.shown.length, (rank) => this.placeOfRank(rank) <= this.top + this.span);
    this.clipped(0, LAYOUT.head, this.width, this.height, () => {
      this.drawGrid();
      this.drawChoice();
    });
    this.clipped(LAYOUT.gutter, LAYOUT.head, this.width - LAYOUT.gutter, this.height, () => {
      this.drawLanes();
      this.drawProcesses();
      this.asArrows = this.to - this.from <= LAYOUT.arrows;
      if (this.asArrows) { this.drawArrows(); } else { this.drawDensity(); }
    });
    this.drawHead();
    this.drawStrip();
  }

  clipped(x, y, width, height, work) {
    this.context.save();
    this.context.beginPath();
    this.context.rect(x, y, width, height);
    this.context.clip();
    work();
    this.context.restore();
  }

  // A text that fits, or as much of it as does.
  text(text, x, y, room, align = "left") {
    const c = this.context;
    c.textAlign = align;
    let cut = text;
    while (cut.length > 1 && c.measureText(cut).width > room) {
      cut = cut.slice(0, cut.endsWith("…") ? -2 : -1) + "…";
    }
    c.fillText(cut, x, y);
  }

  line(colour, points, width = 1, dash = []) {
    const c = this.context;
    c.strokeStyle = this.colour(colour);
    c.lineWidth = width;
    c.setLineDash(dash);
    c.beginPath();
    points.forEach(([x, y], i) => (i === 0 ? c.moveTo(x, y) : c.lineTo(x, y)));
    c.stroke();
    c.setLineDash([]);
  }

  drawGrid() {
    const story = this.story;
    const label = (place, ns, unit) => {
      const y = this.yOf(place);
      this.line("faint", [[LAYOUT.gutter - 6, y], [this.width, y]]);
      this.context.fillStyle = this.colour("soft");
      this.text(story.clock(ns, unit), LAYOUT.gutter - 12, y, LAYOUT.gutter, "right");
    };
    if (this.byTime) {
      const rough = this.span / this.height * 60;
      const power = 10 ** Math.floor(Math.log10(Math.max(rough, 1)));
      const step = [1, 2, 5, 10].map((n) => n * power).find((n) => n >= rough);
      for (let at = Math.ceil(this.top / step) * step; at < this.top + this.span; at += step) { label(at, at, step); }
      return;
    }
    const step = Math.max(1, Math.ceil(this.span / this.height * 26));
    for (let rank = Math.ceil(this.from / step) * step; rank < this.to; rank += step) {
      label(rank + 0.5, story.time[this.shown[rank]], 1000);
    }
  }

  drawChoice() {
    if (this.chosen >= 0) {
      const row = Math.max(this.byTime ? 0 : this.height / this.span, LAYOUT.row + 3);
      this.context.fillStyle = this.colour("choice");
      this.context.fillRect(0, this.yOf(this.placeOf(this.chosen)) - row / 2, this.width, row);
    }
  }

  // From one record to another, as far as it is in sight: nothing, or its beginning and end.
  extent(first, last) {
    const from = Math.max(this.yOf(this.placeOf(first)), LAYOUT.head - 9);
    const to = Math.min(this.yOf(this.placeOf(last)), LAYOUT.head + this.height + 9);
    return to >= from ? [from, to] : null;
  }

  drawLanes() {
    const story = this.story;
    const bottom = LAYOUT.head + this.height;
    this.line("ink", [[LAYOUT.gutter + 20, LAYOUT.head], [LAYOUT.gutter + 20, bottom]], 3);
    for (const [lane, column] of this.columns) {
      const x = this.laneX(column);
      if (x <= this.lanesBegin - 20 || x > this.width + 20) { continue; }
      this.line("line", [[x, LAYOUT.head], [x, bottom]], 1, [2, 4]);
      for (const [first, last] of story.links[lane]) {
        const seen = this.extent(first, last);
        if (seen) { this.line("soft", [[x, seen[0]], [x, seen[1]]], 2); }
      }
    }
    const c = this.context;
    const [begin, end] = [this.shown[this.from] ?? Infinity, this.shown[Math.min(this.to, this.shown.length) - 1] ?? -1];
    const drawn = new Map(); // by lane: how far down; many that are too short to be told apart are one
    for (const batch of story.batches) {
      const column = this.columns.get(batch.lane);
      if (column === undefined || (!this.byTime && (batch.last < begin || batch.first > end))) { continue; }
      const x = this.laneX(column);
      if (x <= this.lanesBegin - 20 || x > this.width + 20) { continue; }
      const seen = this.extent(batch.first, batch.last);
      if (!seen || (batch.end === 0 && seen[1] <= (drawn.get(column) ?? -Infinity))) { continue; }
      drawn.set(column, seen[1] + 1);
      c.fillStyle = this.colour("batch");
      c.globalAlpha = 0.4;
      c.beginPath();
      c.roundRect(x - 4, seen[0] - 5, 8, seen[1] - seen[0] + 10, 4);
      c.fill();
      c.globalAlpha = 1;
      if (batch.end > 0) { // not ended by itself: open at the end, or taken by DOWN
        this.line("bad", [[x - 7, seen[1] + 5], [x + 7, seen[1] + 5]], 2);
      }
    }
  }

  // Where another one begins, or the same again: what the one before held is gone.
  drawProcesses() {
    const half = Math.min(this.byTime ? 0 : this.height / this.span / 2, LAYOUT.row);
    for (const {process, first} of this.story.processes.slice(1)) {
      const y = this.yOf(this.placeOf(first)) - half;
      if (y < LAYOUT.head || y > LAYOUT.head + this.height) { continue; }
      this.line("begin", [[LAYOUT.gutter, y], [this.width, y]], 2, [12, 4]);
      this.context.fillStyle = this.colour("begin");
      this.text(`process ${process}`, this.width - 8, y - 8, 120, "right");
    }
  }

  drawArrows() {
    const labelled = new Map(); // by lane: how far down its latest label reaches
    const labels = [];
    for (let rank = this.from; rank < this.to; rank++) {
      const i = this.shown[rank];
      const y = this.yOf(this.placeOfRank(rank));
      const lane = this.story.lane[i];
      const x = this.laneX(this.columns.get(lane));
      const hasRoom = y - (labelled.get(lane) ?? -Infinity) >= LAYOUT.row || i === this.chosen;
      if (x <= this.lanesBegin - 20 || x >= this.width + 20) {
        this.drawStub(i, y);
      } else {
        this.drawRecord(i, x, y);
        if (hasRoom) {
          labelled.set(lane, y);
          labels.push([i, x + 11, y]);
        }
      }
      this.drawPause(rank, y);
      if (this.story.lost[i] > 0) { this.line("bad", [[LAYOUT.gutter, y - 7], [this.width, y - 7]], 1.5, [3, 5]); }
    }
    const c = this.context;
    for (const [i, x, y] of labels) { // above all lines
      const label = this.story.label(i);
      const room = this.laneWidth - 20;
      c.globalAlpha = 0.85;
      c.fillStyle = this.colour(i === this.chosen ? "choice" : "paper");
      c.fillRect(x - 2, y - 6, Math.min(c.measureText(label).width, room) + 4, 12);
      c.globalAlpha = 1;
      c.fillStyle = this.colour(this.colourOf(i));
      this.text(label, x, y, room);
    }
  }

  colourOf(i) {
    const bits = this.story.bits[i];
    const kind = bits & 3;
    return isBad(bits) ? "bad" : kind === KIND.up ? "up" : kind === KIND.down ? "down"
      : bits & BIT.toOwner ? "out" : "in";
  }

  // Of a message whose owner is out of sight.
  drawStub(i, y) {
    if ((this.story.bits[i] & 3) === KIND.message) {
      this.line(this.colourOf(i), [[LAYOUT.gutter + 22, y], [LAYOUT.gutter + 34, y]], 1.2);
    }
  }

  // Rows are as high as any other however long nothing came: that is told where it was long.
  drawPause(rank, y) {
    const row = this.height / this.span;
    if (this.byTime || rank === 0 || row < LAYOUT.row) { return; }
    const seconds = (this.story.steady[this.shown[rank]] - this.story.steady[this.shown[rank - 1]]) / 1e9;
    if (seconds >= 0.1) {
      this.line("soft", [[LAYOUT.gutter - 112, y - row / 2], [this.width, y - row / 2]], 1, [1, 3]);
      this.context.fillStyle = this.colour("soft");
      this.text(`${seconds.toFixed(seconds < 10 ? 1 : 0)} s later`, this.width - 8, y - row / 2 - 8, 120, "right");
    }
  }

  drawRecord(i, x, y) {
    const c = this.context;
    const bits = this.story.bits[i];
    const kind = bits & 3;
    const name = this.colourOf(i);
    c.fillStyle = this.colour(name);
    if (kind === KIND.message) {
      const ends = [LAYOUT.gutter + 22, x - 5];
      const [from, to] = bits & BIT.toOwner ? ends : [ends[1], ends[0]];
      const back = from < to ? -7 : 7;
      c.globalAlpha = i !== this.chosen && this.to - this.from > this.height / 8 ? 0.6 : 1;
      this.line(name, [[from, y], [to, y]], i === this.chosen ? 2.2 : 1.2);
      c.globalAlpha = 1;
      if (bits & BIT.failed) {
        this.line(name, [[to + back - 4, y - 4], [to + back + 4, y + 4]], 2);
        this.line(name, [[to + back - 4, y + 4], [to + back + 4, y - 4]], 2);
      } else {
        this.line(name, [[to + back, y - 3.5], [to, y], [to + back, y + 3.5]], 1.6);
      }
    } else if (kind === KIND.refused) {
      this.line(name, [[x - 6, y - 5], [x + 6, y + 5]], 2.4);
      this.line(name, [[x - 6, y + 5], [x + 6, y - 5]], 2.4);
    } else {
      const tip = kind === KIND.up ? -6 : 6;
      c.beginPath();
      c.moveTo(x, y + tip);
      c.lineTo(x - 7, y - tip * 0.8);
      c.lineTo(x + 7, y - tip * 0.8);
      c.closePath();
      if (kind === KIND.up) { c.fill(); } else {
        c.fillStyle = this.colour("paper");
        c.fill();
        c.strokeStyle = this.colour(name);
        c.lineWidth = 2;
        c.stroke();
        c.fillStyle = this.colour(name);
      }
    }
  }

  // Too many for arrows: how many there are in each lane, a row of pixels by another; what failed, was lost, came up or
  // went down stays in sight.
  drawDensity() {
    const row = 3;
    const rows = Math.ceil(this.height / row);
    const counts = this.lanes.map(() => [new Uint32Array(rows), new Uint32Array(rows), new Array(rows)]);
    const missing = new Set();
    let most = 1;
    for (let rank = this.from; rank < this.to; rank++) {
      const i = this.shown[rank];
      const bits = this.story.bits[i];
      const at = Math.min(rows - 1, Math.max(0, Math.floor((this.yOf(this.placeOfRank(rank)) - LAYOUT.head) / row)));
      const of = counts[this.columns.get(this.story.lane[i])];
      if ((bits & 3) === KIND.message) { most = Math.max(most, ++of[bits & BIT.toOwner ? 1 : 0][at]); }
      const mark = this.colourOf(i);
      if (mark === "bad" || (mark !== "in" && mark !== "out" && of[2][at] !== "bad")) { of[2][at] = mark; }
      if (this.story.lost[i] > 0) { missing.add(at); }
    }
    const c = this.context;
    const room = this.laneWidth / 2 - 8;
    const length = (n) => 2 + (room - 2) * Math.log1p(n) / Math.log1p(most);
    const bar = (name, x, y, width) => {
      c.fillStyle = this.colour(name);
      c.globalAlpha = 0.6;
      c.fillRect(x, y, width, row - 0.5);
      c.globalAlpha = 1;
    };
    counts.forEach(([toProcess, toOwner, marks], column) => {
      const x = this.laneX(column);
      if (x <= this.lanesBegin - 20 || x > this.width + this.laneWidth) { return; }
      for (let at = 0; at < rows; at++) {
        const y = LAYOUT.head + at * row;
        if (toProcess[at] > 0) { bar("in", x - 5 - length(toProcess[at]), y, length(toProcess[at])); }
        if (toOwner[at] > 0) { bar("out", x + 5, y, length(toOwner[at])); }
        if (marks[at]) {
          c.fillStyle = this.colour(marks[at]);
          c.fillRect(x - 5, y - 1, 10, row + 1);
        }
      }
    });
    for (const at of missing) {
      const y = LAYOUT.head + at * row;
      this.line("bad", [[LAYOUT.gutter, y], [this.width, y]], 1.5, [3, 5]);
    }
  }

  drawHead() {
    const c = this.context;
    c.fillStyle = this.colour("paper");
    c.fillRect(0, 0, this.width, LAYOUT.head);
    this.line("line", [[0, LAYOUT.head], [this.width, LAYOUT.head]]);
    c.fillStyle = this.colour("ink");
    this.text("process", LAYOUT.gutter + 20, 16, 80, "center");
    this.clipped(this.lanesBegin, 0, this.width - this.lanesBegin, LAYOUT.head, () => {
      for (const [lane, column] of this.columns) {
        const x = this.laneX(column);
        if (x < 0 || x > this.width + this.laneWidth) { continue; }
        const title = this.story.laneTitle(lane);
        c.fillStyle = this.colour("ink");
        this.text(title.first, x, 15, this.laneWidth - 10, "center");
        c.fillStyle = this.colour("soft");
        this.text(title.second, x, 32, this.laneWidth - 10, "center");
      }
    });
  }

  // All of it at a glance, on the right, with what is in sight.
  drawStrip() {
    const c = this.context;
    const left = this.width;
    c.fillStyle = this.colour("ground");
    c.fillRect(left, 0, LAYOUT.strip, this.canvas.clientHeight);
    const rows = Math.max(1, Math.floor(this.height / 2));
    const key = `${rows} ${this.byTime} ${this.shown.length} ${this.shown[0]}`;
    if (this.stripKey !== key) {
      this.stripKey = key;
      this.strip = [new Uint32Array(rows), new Uint8Array(rows)];
      for (let rank = 0; rank < this.shown.length; rank++) {
        const at = Math.min(rows - 1, Math.floor((this.placeOfRank(rank) - this.least) / this.whole * rows));
        this.strip[0][at]++;
        if (isBad(this.story.bits[this.shown[rank]])) { this.strip[1][at] = 1; }
      }
      this.stripMost = this.strip[0].reduce((a, b) => Math.max(a, b), 1);
    }
    for (let at = 0; at < rows; at++) {
      const n = this.strip[0][at];
      const length = n === 0 ? 0 : 3 + (LAYOUT.strip - 12) * Math.log1p(n) / Math.log1p(this.stripMost);
      c.fillStyle = this.colour(this.strip[1][at] ? "bad" : "soft");
      if (n > 0) { c.fillRect(left + 4, LAYOUT.head + at * 2, length, 1.6); }
    }
    const y = LAYOUT.head + (this.top - this.least) / this.whole * this.height;
    c.strokeStyle = this.colour("accent");
    c.lineWidth = 2;
    c.strokeRect(left + 2, y + 1, LAYOUT.strip - 4, Math.max(this.span / this.whole * this.height - 2, 4));
  }
}
