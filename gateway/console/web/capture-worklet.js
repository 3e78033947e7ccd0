// Runs in the audio thread: takes the microphone at the context's rate,
// resamples it to 8 kHz mono through a windowed-sinc low-pass (cut at
// 3.6 kHz, below the new Nyquist frequency, so nothing folds back), and posts
// 20 ms of 16-bit samples at a time to the page.
const OUTPUT_RATE = 8000;
const CUTOFF = 3600;
const FRAME = 160;
const ZERO_CROSSINGS = 8;  // the kernel's half width, in periods of the cut-off

class CaptureProcessor extends AudioWorkletProcessor {
  constructor() {
    super();
    this.step = sampleRate / OUTPUT_RATE;                  // input samples per output sample
    this.scale = (2 * CUTOFF) / sampleRate;                // the kernel's gain and width
    this.half = Math.ceil(ZERO_CROSSINGS / this.scale / 2);  // input samples on each side
    this.input = new Float32Array(0);
    this.position = this.half;                             // of the next output sample, in this.input
    this.frame = new Int16Array(FRAME);
    this.filled = 0;
  }

  kernel(distance) {
    const x = distance * this.scale;
    const sinc = x === 0 ? 1 : Math.sin(Math.PI * x) / (Math.PI * x);
    const window = 0.5 + 0.5 * Math.cos((Math.PI * distance) / (this.half + 1));  // Hann
    return this.scale * sinc * window;
  }

  process(inputs) {
    const channels = inputs[0];
    if (!channels || channels.length === 0) return true;
    const joined = new Float32Array(this.input.length + channels[0].length);
    joined.set(this.input);
    joined.set(channels[0], this.input.length);
    let position = this.position;
    while (position + this.half < joined.length) {
      const centre = Math.floor(position);
      let sum = 0;
      for (let i = centre - this.half + 1; i <= centre + this.half; i++) {
        sum += joined[i] * this.kernel(position - i);
      }
      this.frame[this.filled++] = Math.round(Math.max(-1, Math.min(1, sum)) * 32767);
      if (this.filled === FRAME) {
        this.port.postMessage(this.frame.buffer, [this.frame.buffer]);
        this.frame = new Int16Array(FRAME);
        this.filled = 0;
      }
      position += this.step;
    }
    // Keep what the next output samples still need.
    const keep = Math.max(0, Math.floor(position) - this.half);
    this.input = joined.slice(keep);
    this.position = position - keep;
    return true;
  }
}

registerProcessor("capture-8k", CaptureProcessor);
