// Files of some folders on loopback: serve({ "/": folder, ... }) gives { url, requests, close }.

import { createReadStream, statSync } from "node:fs";
import { createServer } from "node:http";
import { extname, join, normalize } from "node:path";

const TYPES = {
  ".html": "text/html",
  ".js": "text/javascript",
  ".css": "text/css",
  ".wasm": "application/wasm",
  ".json": "application/json",
};

export async function serve(folders) {
  const server = createServer((request, response) => {
    const path = normalize(decodeURIComponent(new URL(request.url, "http://localhost").pathname));
    const prefix = Object.keys(folders)
      .filter((name) => path.startsWith(name))
      .sort((a, b) => b.length - a.length)[0];
    const file = prefix && join(folders[prefix], path.slice(prefix.length) || "index.html");
    if (!file || !statSync(file, { throwIfNoEntry: false })?.isFile()) {
      response.writeHead(404).end();
      return;
    }
    response.writeHead(200, { "Content-Type": TYPES[extname(file)] ?? "application/octet-stream" });
    createReadStream(file).pipe(response);
  });
  await new Promise((listening) => server.listen(0, "127.0.0.1", listening));
  const close = () => {
    server.closeAllConnections();
    return new Promise((closed) => server.close(closed));
  };
  return { url: `http://127.0.0.1:${server.address().port}/`, close };
}
