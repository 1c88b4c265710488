// Building elements, and canvases that follow their size and the page's colours.

const SVG = "http://www.w3.org/2000/svg";

function fill(node, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) node.addEventListener(name.slice(2), value);
    else if (name === "style")
      node.style.cssText = value; // a page's policy may forbid the attribute
    else if (value === true) node.setAttribute(name, "");
    else if (value !== false && value != null) node.setAttribute(name, value);
  }
  node.append(...children.flat().filter((child) => child != null));
  return node;
}

// el("button", { class: "x", onclick: f }, "text", child)
export const el = (tag, attributes = {}, ...children) => fill(document.createElement(tag), attributes, children);
export const svg = (tag, attributes = {}, ...children) =>
  fill(document.createElementNS(SVG, tag), attributes, children);

// A canvas that calls draw(context, width, height) in CSS pixels whenever its size or the colour scheme changes, and
// when redraw() is called; never twice for one screen frame.
export function canvas(label, draw) {
  const node = el("canvas", { role: "img", "aria-label": label });
  let due = 0;
  const redraw = () => {
    due ||= requestAnimationFrame(() => {
      due = 0;
      const { clientWidth: width, clientHeight: height } = node;
      if (!width || !height) return;
      node.width = Math.round(width * devicePixelRatio);
      node.height = Math.round(height * devicePixelRatio);
      const context = node.getContext("2d");
      context.scale(node.width / width, node.height / height);
      context.font = "11px system-ui, sans-serif";
      draw(context, width, height);
    });
  };
  const size = new ResizeObserver(redraw);
  size.observe(node);
  const scheme = matchMedia("(prefers-color-scheme: dark)");
  scheme.addEventListener("change", redraw);
  const close = () => {
    cancelAnimationFrame(due);
    size.disconnect();
    scheme.removeEventListener("change", redraw);
  };
  return { node, redraw, close };
}

// The value of a colour of style.css.
export const colour = (node, name) => getComputedStyle(node).getPropertyValue(`--${name}`).trim();
