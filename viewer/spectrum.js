// Power spectra of short frames, and the picture of them over any stretch of a recording.

const FRAME = 512; // samples, 32 ms at 16 kHz
export const BINS = FRAME / 2;
const FRAMES_PER_COLUMN = 4; // at most; a column of a long recording shows the mean of as many
const RANGE_DB = 75; // from the darkest colour to the brightest

// Hann window, scaled so that a sine at full scale has the power 1 in its bin.
const WINDOW = Float32Array.from({ length: FRAME }, (_, i) => (2 / FRAME) * (1 - Math.cos((2 * Math.PI * i) / FRAME)));
const COS = Float32Array.from({ length: BINS }, (_, i) => Math.cos((2 * Math.PI * i) / FRAME));
const SIN = Float32Array.from({ length: BINS }, (_, i) => -Math.sin((2 * Math.PI * i) / FRAME));
const BITS = Math.log2(FRAME);
const REVERSED = Uint16Array.from({ length: FRAME }, (_, i) => {
  let reversed = 0;
  for (let bit = 0; bit < BITS; ++bit) reversed |= ((i >> bit) & 1) << (BITS - 1 - bit);
  return reversed;
});

const re = new Float32Array(FRAME);
const im = new Float32Array(FRAME);

// Radix-2 transform of re + i im, which hold their input in bit-reversed order.
function transform() {
  for (let half = 1; half < FRAME; half *= 2) {
    const step = BINS / half;
    for (let start = 0; start < FRAME; start += 2 * half) {
      for (let k = 0; k < half; ++k) {
        const a = start + k;
        const b = a + half;
        const c = COS[k * step];
        const s = SIN[k * step];
        const x = re[b] * c - im[b] * s;
        const y = re[b] * s + im[b] * c;
        re[b] = re[a] - x;
        im[b] = im[a] - y;
        re[a] += x;
        im[a] += y;
      }
    }
  }
}

// Adds to power[0..BINS-1] the power spectra of the frames centred at samples `first` and `second`. Two real frames
// share one complex transform: Z[k] and Z[-k]* are sum and difference of their spectra.
function addPowers(samples, first, second, power) {
  for (let i = 0; i < FRAME; ++i) {
    const to = REVERSED[i];
    re[to] = WINDOW[i] * (samples[first - BINS + i] || 0); // zero beyond the ends
    im[to] = WINDOW[i] * (samples[second - BINS + i] || 0);
  }
  transform();
  for (let k = 1; k < BINS; ++k) {
    const r = re[k];
    const i = im[k];
    const mr = re[FRAME - k];
    const mi = im[FRAME - k];
    power[k] += (r * r + i * i + mr * mr + mi * mi) / 2; // |A|^2 + |B|^2
  }
  power[0] = power[1];
}

// dB of every bin of the column that spans samples from..to.
function columnPowers(samples, from, to, power) {
  power.fill(0);
  const pairs = Math.max(1, Math.min(FRAMES_PER_COLUMN / 2, Math.floor((to - from) / FRAME)));
  for (let p = 0; p < pairs; ++p) {
    const first = Math.round(from + ((to - from) * (2 * p + 0.5)) / (2 * pairs));
    const second = Math.round(from + ((to - from) * (2 * p + 1.5)) / (2 * pairs));
    addPowers(samples, first, second, power);
  }
  for (let k = 0; k < BINS; ++k) power[k] = 10 * Math.log10(power[k] / (2 * pairs) + 1e-15);
}

// The level, in dB, that the brightest colour stands for: the loudest bin of frames taken all over the recording.
export function brightestDb(samples) {
  const power = new Float32Array(BINS);
  let brightest = -60;
  const step = Math.max(FRAME, Math.floor(samples.length / 300));
  for (let at = 0; at < samples.length; at += step) {
    columnPowers(samples, at, at + FRAME, power);
    for (const db of power) brightest = Math.max(brightest, db);
  }
  return brightest - 3;
}

// Fills columns first..last-1 of `image` (an ImageData, BINS high) with samples from..to spread over its width.
export function paintColumns(image, first, last, samples, from, to, brightest, colours) {
  const power = new Float32Array(BINS);
  const pixels = new Uint32Array(image.data.buffer);
  const span = (to - from) / image.width;
  for (let column = first; column < last; ++column) {
    columnPowers(samples, from + column * span, from + (column + 1) * span, power);
    for (let k = 0; k < BINS; ++k) {
      const shade = Math.max(0, Math.min(255, Math.round(255 * (1 + (power[k] - brightest) / RANGE_DB))));
      pixels[(BINS - 1 - k) * image.width + column] = colours[shade];
    }
  }
}

// 256 colours, as ImageData keeps them on a little-endian machine, through the given [red, green, blue] stops.
export function colourScale(stops) {
  return Uint32Array.from({ length: 256 }, (_, i) => {
    const at = (i / 255) * (stops.length - 1);
    const low = Math.min(Math.floor(at), stops.length - 2);
    const mix = (c) => Math.round(stops[low][c] + (at - low) * (stops[low + 1][c] - stops[low][c]));
    return (0xff000000 | (mix(2) << 16) | (mix(1) << 8) | mix(0)) >>> 0;
  });
}
