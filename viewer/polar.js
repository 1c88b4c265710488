// The angles of the wakes, seen from above: 0 degrees is up, clockwise; the radius is the length of the mean direction
// vector, so that an angle the estimator was sure of lies at the rim.

import { el, svg } from "./dom.js";

const RIM = 100;
const MICROPHONES = [0, 120, 240]; // degrees

const at = (degrees, radius) => {
  const turn = (degrees * Math.PI) / 180;
  return [radius * Math.sin(turn), -radius * Math.cos(turn)];
};

export function polar(wakes, text, seek) {
  const heard = wakes.filter((wake) => wake.angle != null);
  const plot = svg("svg", { viewBox: "-132 -124 264 248", class: "q-polar", role: "group", "aria-label": text.angles });
  for (const share of [1 / 3, 2 / 3, 1]) plot.append(svg("circle", { r: RIM * share, class: "q-ring" }));
  for (let degrees = 0; degrees < 360; degrees += 30) {
    const [x, y] = at(degrees, RIM);
    const [tx, ty] = at(degrees, RIM + 15);
    plot.append(svg("line", { x1: 0, y1: 0, x2: x, y2: y, class: "q-ring" }));
    if (degrees % 90 === 0 || degrees % 60 === 30) continue;
    plot.append(svg("text", { x: tx, y: ty, class: "q-degrees" }, `${degrees}`));
  }
  for (const degrees of [0, 90, 180, 270]) {
    const [x, y] = at(degrees, RIM + 15);
    plot.append(svg("text", { x, y, class: "q-degrees" }, `${degrees}°`));
  }
  MICROPHONES.forEach((degrees, i) => {
    const [x, y] = at(degrees, 13);
    plot.append(svg("circle", { cx: x, cy: y, r: 2.5, class: "q-microphone" }, svg("title", {}, `${i + 1}`)));
  });
  heard.forEach((wake) => {
    const [x, y] = at(wake.angle, RIM * Math.max(0.25, Math.min(1, wake.angle_length ?? 1)));
    const label = `${wake.number}: ${wake.angle}°, ${wake.clock}`;
    const go = () => seek(wake);
    plot.append(
      svg("line", { x1: 0, y1: 0, x2: x, y2: y, class: "q-ray" }),
      svg(
        "g",
        {
          class: "q-dot",
          tabindex: 0,
          role: "button",
          "aria-label": label,
          onclick: go,
          onkeydown: (e) => e.key === "Enter" && go(),
        },
        svg("circle", { cx: x, cy: y, r: 9 }),
        svg("text", { x, y }, `${wake.number}`),
        svg("title", {}, label),
      ),
    );
  });
  return el("div", {}, plot, el("p", { class: "q-note" }, heard.length ? text.anglesNote : text.noAngles));
}
