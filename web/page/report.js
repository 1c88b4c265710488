// What the viewer shows of a recording that was played through the engine here.

import { toFloats } from "./recording.js";

export function reportOf({ title, tracks, about, result, text }) {
  const seconds = tracks.mic1.length / 16000;
  const { meters, check, wakes } = result;
  const report = {
    format: "quibo-report",
    version: 1,
    title,
    seconds,
    created: new Date().toISOString().replace(/\.\d+/, ""),
    quibo: { version: result.version, kernels: result.kernels },
    recording: about,
    audio: { before: { label: text.before }, after: { label: text.after } },
    levels: { seconds_per_point: 1, ...meters.levels },
    peaks: { seconds_per_point: 1, ...meters.peaks },
    echo: { seconds_per_point: 1, reduction_db: meters.reduction, only_device: meters.onlyDevice },
    reference_delay: check?.reference_delay,
    check,
    wakes: wakes.map(({ angleLength, ...wake }) => ({ ...wake, angle_length: angleLength })),
    summary: {
      wakes: wakes.length,
      echo_reduction_db: meters.medianReduction,
      core_share: result.secondsUsed / seconds,
    },
  };
  return { report, samples: { before: toFloats(tracks.mic1), after: toFloats(result.clean) } };
}
