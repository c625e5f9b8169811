// What people do with it.

const element = (id) => document.getElementById(id);
const number = new Intl.NumberFormat("en");
let story;
let picture;
let isDue = false;

function redraw() {
  if (isDue) { return; }
  isDue = true;
  requestAnimationFrame(() => {
    isDue = false;
    picture.draw();
    tellView();
  });
}

function tellView() {
  const {from, to, shown} = picture;
  element("empty").hidden = shown.length > 0;
  const unit = to > from ? (story.steady[shown[to - 1]] - story.steady[shown[from]]) / 1000 : 1;
  const clock = (rank) => story.clock(story.steady[shown[rank]], Math.max(unit, 1000));
  element("view").textContent = to > from
    ? `In sight: ${number.format(to - from)} of ${number.format(shown.length)}, ${clock(from)} to ${clock(to - 1)}` +
      (picture.asArrows ? "" : ", as density")
    : "In sight: nothing";
  element("count").textContent = shown.length === story.length ? `${number.format(story.length)} records`
    : `${number.format(shown.length)} of ${number.format(story.length)} records`;
}

// Details ------------------------------------------------------------------------------------------------------

async function select(i, look = true) {
  picture.chosen = i;
  if (i < 0) {
    element("details").hidden = true;
    redraw();
    return;
  }
  if (look) { picture.lookAt(picture.rankAt(picture.placeOf(i))); }
  const lines = await story.details(i);
  if (picture.chosen !== i) { return; } // another one was chosen meanwhile
  element("details").hidden = false;
  element("details-title").textContent = `Record ${number.format(i + 1)} of ${number.format(story.length)}`;
  element("line").textContent = lines[0];
  element("records").replaceChildren(...lines.slice(1).map((line) => {
    const row = document.createElement("div");
    row.textContent = line.trim();
    return row;
  }));
  element("records").hidden = lines.length === 1;
  redraw();
}

// The next record that is shown, from the chosen one on or from what is in sight.
function step(direction, isWanted = () => true) {
  const {shown, chosen} = picture;
  let rank = chosen < 0 ? (direction > 0 ? picture.from - 1 : picture.to)
    : lowerBound(shown.length, (at) => shown[at] < chosen) - (direction > 0 && !shown.includes(chosen) ? 1 : 0);
  for (rank += direction; rank >= 0 && rank < shown.length; rank += direction) {
    if (isWanted(shown[rank])) {
      select(shown[rank]);
      return;
    }
  }
}
const stepToFailure = (direction) => step(direction, (i) => isBad(story.bits[i]));

// Filter -------------------------------------------------------------------------------------------------------

function filter() {
  const value = (id) => element(id).value.trim();
  const optional = (id) => (value(id) === "" ? null : Number(value(id)));
  const handle = optional("handle");
  const isNumber = handle === null || Number.isInteger(handle);
  element("handle").classList.toggle("wrong", !isNumber);
  element("handle").setAttribute("aria-invalid", String(!isNumber));
  if (isNumber) {
    picture.show(choose(story, {owner: optional("owner"), class: optional("class"), type: optional("type"), handle,
      name: value("name"), failures: element("failures").checked}));
    redraw();
  }
}

function addOptions(id, options) {
  element(id).append(...options.map(([value, text]) => new Option(text, value)));
}

function fillIn() {
  const {about} = story;
  document.title = `${about.title} - L2VPN timeline`;
  element("title").textContent = about.title;
  let bad = 0;
  for (let i = 0; i < story.length; i++) { bad += isBad(story.bits[i]) ? 1 : 0; }
  const seconds = story.length > 0 ? story.steady[story.length - 1] / 1e9 : 0;
  element("summary").textContent = [
    `${number.format(story.length)} records`, `${about.lanes.length} owners`,
    ...(story.processes.length > 1 ? [`${story.processes.length} processes`] : []), `${number.format(bad)} failures`,
    ...(about.lost > 0 ? [`${number.format(about.lost)} missing`] : []), `${seconds.toFixed(3)} s`,
    story.length > 0 ? new Date(Number(BigInt(about.began) / 1000000n)).toLocaleString() : "",
    about.program].filter(Boolean).join(" · ");
  addOptions("owner", about.lanes.map((lane, i) => {
    const title = story.laneTitle(i);
    return [i, `${title.first}, ${title.second}`];
  }));
  const classes = [...new Set(about.lanes.map((lane) => lane.class))].sort((a, b) => a - b);
  addOptions("class", classes.map((id) => [id, id]));
  addOptions("type", about.types.map((name, i) => [i, name]).sort((a, b) => (a[1] < b[1] ? -1 : 1)));
}

// Keys, wheel, pointer -----------------------------------------------------------------------------------------

const moving = (work) => () => { work(); redraw(); };
const actions = {
  "+": moving(() => picture.zoom(1 / 1.5)),
  "=": moving(() => picture.zoom(1 / 1.5)),
  "-": moving(() => picture.zoom(1.5)),
  "0": moving(() => picture.fit()),
  ArrowUp: () => step(-1),
  ArrowDown: () => step(1),
  ArrowLeft: moving(() => { picture.sideways -= picture.laneWidth / 2; }),
  ArrowRight: moving(() => { picture.sideways += picture.laneWidth / 2; }),
  PageUp: moving(() => picture.pan(-picture.height * 0.8)),
  PageDown: moving(() => picture.pan(picture.height * 0.8)),
  Home: moving(() => picture.pan(-Infinity)),
  End: moving(() => picture.pan(1e9)),
  n: () => stepToFailure(1),
  N: () => stepToFailure(-1),
  "/": () => element("name").focus(),
  Escape: () => select(-1),
};

function onKey(event) {
  const isTyping = event.target.closest("input, select, pre") !== null;
  if (event.ctrlKey || event.altKey || event.metaKey || (isTyping && event.key !== "Escape")) { return; }
  if (Object.hasOwn(actions, event.key)) {
    event.preventDefault();
    actions[event.key]();
  }
}

function addPointer(canvas) {
  let held = null;
  const at = (event) => {
    const box = canvas.getBoundingClientRect();
    return [event.clientX - box.left, event.clientY - box.top];
  };
  canvas.addEventListener("wheel", (event) => {
    event.preventDefault();
    const pixels = event.deltaMode === 0 ? 1 : 30;
    if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      picture.sideways += (event.deltaX || event.deltaY) * pixels;
    } else {
      picture.zoom(1.0015 ** (event.deltaY * pixels), Math.max(at(event)[1], LAYOUT.head));
    }
    redraw();
  }, {passive: false});
  canvas.addEventListener("pointerdown", (event) => {
    const [x, y] = at(event);
    held = {x, y, top: picture.top, sideways: picture.sideways, onStrip: x > picture.width, moved: false};
    canvas.setPointerCapture(event.pointerId);
    canvas.focus();
  });
  canvas.addEventListener("pointermove", (event) => {
    const [x, y] = at(event);
    if (held === null) {
      showHint(x, y);
      return;
    }
    held.moved = held.moved || Math.hypot(x - held.x, y - held.y) > 4;
    if (held.onStrip) {
      picture.top = picture.stripPlace(y) - picture.span / 2;
    } else if (held.moved) {
      picture.top = held.top - (y - held.y) / picture.height * picture.span;
      picture.sideways = held.sideways - (x - held.x);
    }
    redraw();
  });
  canvas.addEventListener("pointerup", (event) => {
    const [x, y] = at(event);
    if (held !== null && held.onStrip) {
      picture.top = picture.stripPlace(y) - picture.span / 2;
      redraw();
    } else if (held !== null && !held.moved) {
      select(picture.recordAt(x, y), false);
    }
    held = null;
  });
  canvas.addEventListener("pointercancel", () => { held = null; });
  canvas.addEventListener("pointerleave", () => { element("hint").hidden = true; });
  canvas.addEventListener("dblclick", (event) => {
    picture.zoom(1 / 3, at(event)[1]);
    redraw();
  });
}

function showHint(x, y) {
  const i = picture.recordAt(x, y);
  const hint = element("hint");
  hint.hidden = i < 0 || !picture.asArrows;
  if (!hint.hidden) {
    hint.textContent = `${story.clock(story.time[i], 1)}  ${story.label(i)}  ${number.format(story.size[i])} bytes`;
    hint.style.left = `${Math.min(x + 14, picture.width - 300)}px`;
    hint.style.top = `${y + 16}px`;
  }
}

function setTheme(name) {
  document.documentElement.dataset.theme = name;
}

function setScale(byTime) {
  element("by-order").setAttribute("aria-pressed", String(!byTime));
  element("by-time").setAttribute("aria-pressed", String(byTime));
  picture.setByTime(byTime);
  redraw();
}

function addControls() {
  const click = (id, action) => element(id).addEventListener("click", action);
  click("by-order", () => setScale(false));
  click("by-time", () => setScale(true));
  click("zoom-in", actions["+"]);
  click("zoom-out", actions["-"]);
  click("fit", actions["0"]);
  click("before", () => step(-1));
  click("after", () => step(1));
  click("failure", () => stepToFailure(1));
  click("close", () => select(-1));
  click("theme", () => {
    setTheme(document.documentElement.dataset.theme === "dark" ? "light" : "dark");
    redraw();
  });
  element("filter").addEventListener("input", filter);
  element("filter").addEventListener("change", filter);
  element("filter").addEventListener("reset", () => setTimeout(filter));
  element("filter").addEventListener("submit", (event) => event.preventDefault());
  document.addEventListener("keydown", onKey);
  addPointer(element("lanes"));
  new ResizeObserver(redraw).observe(element("stage"));
  const dark = matchMedia("(prefers-color-scheme: dark)");
  dark.addEventListener("change", () => {
    setTheme(dark.matches ? "dark" : "light");
    redraw();
  });
}

async function start() {
  setTheme(matchMedia("(prefers-color-scheme: dark)").matches ? "dark" : "light");
  story = await Story.read();
  fillIn();
  picture = new Picture(element("lanes"), story);
  picture.begin();
  addControls();
  element("loading").hidden = true;
  redraw();
}

start().catch((error) => { element("loading").textContent = `This page cannot be shown: ${error.message}`; });
