// Where things are in the picture: time runs down, the process is on the left, a lane for each owner on its right. A
// place is the rank of a record among those that are shown or, by time, nanoseconds.

const LAYOUT = {head: 46, gutter: 124, process: 60, strip: 34, row: 13, arrows: 4000, laneLeast: 176, laneMost: 300};

function lowerBound(length, isBelow) {
  let low = 0;
  let high = length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (isBelow(middle)) { low = middle + 1; } else { high = middle; }
  }
  return low;
}

class Places {
  constructor(canvas, story) {
    this.canvas = canvas;
    this.story = story;
    this.byTime = false;
    this.chosen = -1;
    this.sideways = 0;
    this.show(choose(story, {owner: null, class: null, type: null, handle: null, name: "", failures: false}));
  }

  show(shown) {
    this.shown = shown;
    this.stripKey = null; // of what is drawn at the side
    const lanes = new Set();
    for (const i of shown) { lanes.add(this.story.lane[i]); }
    this.lanes = [...lanes].sort((a, b) => a - b);
    this.columns = new Map(this.lanes.map((lane, column) => [lane, column]));
    this.fit();
  }

  // Few enough to be read one by one are, from the first on; of many, all is seen at first.
  begin() {
    if (this.shown.length <= 2000) { this.span = Math.min(this.whole, this.height / 18); }
  }

  setByTime(byTime) {
    const middle = this.rankAt(this.top + this.span / 2);
    const share = this.span / this.whole;
    this.byTime = byTime;
    this.fit();
    this.span = this.whole * share;
    this.lookAt(Math.min(middle, this.shown.length - 1));
  }

  // Places -----------------------------------------------------------------------------------------------------

  placeOfRank(rank) {
    return this.byTime ? this.story.steady[this.shown[rank]] : rank + 0.5;
  }
  placeOf(i) {
    return this.byTime ? this.story.steady[i]
      : lowerBound(this.shown.length, (rank) => this.shown[rank] < i) + 0.5;
  }
  // The first rank that is not above a place.
  rankAt(place) {
    return lowerBound(this.shown.length, (rank) => this.placeOfRank(rank) < place);
  }
  get height() { return this.canvas.clientHeight - LAYOUT.head; }
  get width() { return this.canvas.clientWidth - LAYOUT.strip; }
  yOf(place) { return LAYOUT.head + (place - this.top) / this.span * this.height; }
  placeAt(y) { return this.top + (y - LAYOUT.head) / this.height * this.span; }

  fit() {
    const n = this.shown.length;
    const first = n > 0 && this.byTime ? this.story.steady[this.shown[0]] : 0;
    const last = this.byTime ? (n > 0 ? this.story.steady[this.shown[n - 1]] : 1) : n;
    const margin = this.byTime ? Math.max((last - first) * 0.02, 500) : 0;
    this.least = first - margin;
    this.whole = Math.max(last - first, 1) + 2 * margin;
    this.top = this.least;
    this.span = this.whole;
  }

  keepInside() {
    const nearest = this.byTime ? 50 : 3;
    this.span = Math.min(Math.max(this.span, Math.min(nearest, this.whole)), this.whole);
    this.top = Math.min(Math.max(this.top, this.least), this.least + this.whole - this.span);
    this.sideways = Math.min(Math.max(this.sideways, 0), Math.max(0, this.lanesEnd - this.width));
  }
  zoom(factor, y = LAYOUT.head + this.height / 2) {
    const place = this.placeAt(y);
    this.span *= factor;
    this.keepInside();
    this.top = place - (y - LAYOUT.head) / this.height * this.span;
    this.keepInside();
  }
  pan(pixels) {
    this.top += pixels / this.height * this.span;
    this.keepInside();
  }
  // Brings a rank into sight, and its lane.
  lookAt(rank) {
    if (rank < 0) { return; }
    const place = this.placeOfRank(rank);
    if (place < this.top + this.span * 0.05 || place > this.top + this.span * 0.95) {
      this.top = place - this.span / 2;
    }
    const x = this.laneX(this.columns.get(this.story.lane[this.shown[rank]]));
    if (x < this.lanesBegin + 40) { this.sideways -= this.lanesBegin + this.laneWidth / 2 - x; }
    if (x > this.width - 40) { this.sideways += x - this.width + this.laneWidth / 2; }
    this.keepInside();
  }

  get lanesBegin() { return LAYOUT.gutter + LAYOUT.process; }
  get laneWidth() {
    const share = (this.width - this.lanesBegin) / Math.max(this.lanes.length, 1);
    return Math.min(Math.max(share, LAYOUT.laneLeast), LAYOUT.laneMost);
  }
  get lanesEnd() { return this.lanesBegin + this.laneWidth * this.lanes.length; }
  laneX(column) { return this.lanesBegin + this.laneWidth * (column + 0.5) - this.sideways; }

  // The record nearest to a point, or -1.
  recordAt(x, y) {
    if (y < LAYOUT.head || x > this.width) { return -1; }
    const reach = 9;
    let best = -1;
    let least = Infinity;
    const end = this.rankAt(this.placeAt(y + reach));
    for (let rank = this.rankAt(this.placeAt(y - reach)); rank <= end && rank < this.shown.length; rank++) {
      const i = this.shown[rank];
      const away = Math.abs(this.yOf(this.placeOfRank(rank)) - y);
      const beyond = Math.max(0, x - this.laneX(this.columns.get(this.story.lane[i])) - this.laneWidth / 2);
      const distance = away + beyond / 20;
      if (away <= Math.max(reach, this.height / this.span / 2) && distance < least) {
        least = distance;
        best = i;
      }
    }
    return best;
  }
  // The place that a point of the strip stands for.
  stripPlace(y) { return this.least + (y - LAYOUT.head) / this.height * this.whole; }
}
