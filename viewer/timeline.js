// What all panels share: the stretch of the recording they show and the place the player stands at.

const SHORTEST_S = 0.25; // that can be zoomed to

export class Timeline extends EventTarget {
  constructor(seconds) {
    super();
    this.seconds = seconds;
    this.from = 0;
    this.to = seconds;
    this.position = 0;
  }

  show(from, to) {
    const span = Math.max(Math.min(SHORTEST_S, this.seconds), Math.min(this.seconds, to - from));
    this.from = Math.max(0, Math.min(from, this.seconds - span));
    this.to = this.from + span;
    this.dispatchEvent(new Event("range"));
  }

  // A factor above 1 shows more.
  zoom(factor, around = this.position) {
    const at = Math.max(this.from, Math.min(this.to, around));
    this.show(at - factor * (at - this.from), at + factor * (this.to - at));
  }

  pan(seconds) {
    this.show(this.from + seconds, this.to + seconds);
  }

  moveTo(seconds) {
    this.position = Math.max(0, Math.min(this.seconds, seconds));
    const span = this.to - this.from;
    if (this.position < this.from || this.position > this.to)
      this.show(this.position - 0.1 * span, this.position + 0.9 * span);
    this.dispatchEvent(new Event("position"));
  }

  fraction(seconds) {
    return (seconds - this.from) / (this.to - this.from);
  }
}

// "1:07.25"; as few decimals as tell apart what stands `step` seconds apart.
export function clock(seconds, step = 0.01) {
  const digits = step >= 1 ? 0 : step >= 0.1 ? 1 : 2;
  const scale = 10 ** digits;
  const rounded = Math.round(seconds * scale) / scale;
  const rest = (rounded % 60).toFixed(digits).padStart(digits ? digits + 3 : 2, "0");
  const minutes = Math.floor(rounded / 60);
  return minutes < 60
    ? `${minutes}:${rest}`
    : `${Math.floor(minutes / 60)}:${String(minutes % 60).padStart(2, "0")}:${rest}`;
}

// Round times, at most `most` of them, between from and to.
export function ticks(from, to, most) {
  const steps = [0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 1800, 3600, 7200];
  const step = steps.find((s) => (to - from) / s <= most) ?? 14400;
  const first = Math.ceil(from / step - 1e-9);
  const count = Math.floor(to / step + 1e-9) - first + 1;
  return { step, at: Array.from({ length: Math.max(0, count) }, (_, i) => (first + i) * step) };
}
