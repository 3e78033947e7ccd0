// Runs in the audio thread: takes the microphone at the context's rate,
// low-passes and resamples it to 8 kHz mono (a box filter over each output
// sample's span, which is enough for speech on a telephone codec), and posts
// 20 ms of 16-bit samples at a time to the page.
const OUTPUT_RATE = 8000;
const FRAME = 160;

class CaptureProcessor extends AudioWorkletProcessor {
  constructor() {
    super();
    this.step = sampleRate / OUTPUT_RATE;  // input samples per output sample
    this.input = new Float32Array(0);
    this.position = 0;                     // of the next output sample, in this.input
    this.frame = new Int16Array(FRAME);
    this.filled = 0;
  }

  process(inputs) {
    const channels = inputs[0];
    if (!channels || channels.length === 0) return true;
    const mono = channels[0];
    const joined = new Float32Array(this.input.length + mono.length);
    joined.set(this.input);
    joined.set(mono, this.input.length);
    const half = this.step / 2;
    let position = this.position;
    while (position + half < joined.length) {
      const from = Math.max(0, Math.floor(position - half));
      const to = Math.min(joined.length, Math.floor(position + half) + 1);
      let sum = 0;
      for (let i = from; i < to; i++) sum += joined[i];
      const value = Math.max(-1, Math.min(1, sum / (to - from)));
      this.frame[this.filled++] = Math.round(value * 32767);
      if (this.filled === FRAME) {
        this.port.postMessage(this.frame.buffer, [this.frame.buffer]);
        this.frame = new Int16Array(FRAME);
        this.filled = 0;
      }
      position += this.step;
    }
    // Keep what the next output samples still need.
    const keep = Math.max(0, Math.floor(position - half) - 1);
    this.input = joined.slice(keep);
    this.position = position - keep;
    return true;
  }
}

registerProcessor("capture-8k", CaptureProcessor);
