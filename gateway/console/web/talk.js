// Push-to-talk: while the button is held, the microphone goes to the device
// (resampled to 8 kHz mono in an AudioWorklet, 20 ms of 16-bit samples per
// WebSocket message) and the device's audio comes back over the same socket
// and plays; an AnalyserNode shows its main frequency. Letting go closes the talk.
const RATE = 8000;
const MAX_WAITING = 100;  // messages held while the socket opens (2 s)

export class PushToTalk {
  constructor(devIndex, view) {
    this.devIndex = devIndex;
    this.view = view;
    this.active = null;
    // Diagnostics for measuring delays: when the microphone opened, and when each 20 ms frame left
    // the page (its first sample's index, milliseconds since the epoch; the last 30 s).
    window.pushToTalkLog = this.log = { microphoneAt: 0, frames: [] };
  }

  async press() {
    if (this.active) return;
    const talk = this.active = { waiting: [], sent: 0, closed: false };
    this.view.status("opening…");
    const url = `${location.protocol === "https:" ? "wss" : "ws"}://${location.host}/ws/talk?` +
                new URLSearchParams({ device: this.devIndex });
    talk.socket = new WebSocket(url);
    talk.socket.binaryType = "arraybuffer";
    talk.socket.onopen = () => {
      for (const frame of talk.waiting) this.send(talk, frame);
      talk.waiting = [];
    };
    talk.socket.onmessage = (event) => this.received(talk, event.data);
    talk.socket.onclose = (event) => {
      talk.closed = true;
      this.view.status(event.reason && event.reason !== "talk closed" ? `ended: ${event.reason}` : "idle");
      this.stopMicrophone(talk);
      if (this.active === talk) this.active = null;
      this.view.ended();
    };
    try {
      talk.context = new AudioContext();
      await talk.context.audioWorklet.addModule("/capture-worklet.js");
      talk.stream = await navigator.mediaDevices.getUserMedia({
        audio: { channelCount: 1, echoCancellation: false, noiseSuppression: false, autoGainControl: false },
      });
      this.log.microphoneAt = performance.timeOrigin + performance.now();
      this.log.frames = [];
    } catch (failure) {
      this.view.status(`no microphone: ${failure.message}`);
      this.release();
      return;
    }
    if (talk.closed || talk.released) {
      this.stopMicrophone(talk);
      return;
    }
    const source = talk.context.createMediaStreamSource(talk.stream);
    talk.worklet = new AudioWorkletNode(talk.context, "capture-8k");
    talk.worklet.port.onmessage = (event) => {
      if (talk.released) return;
      if (talk.socket.readyState === WebSocket.OPEN) this.send(talk, event.data);
      else if (talk.waiting.length < MAX_WAITING) talk.waiting.push(event.data);
    };
    source.connect(talk.worklet);
    talk.analyser = talk.context.createAnalyser();
    talk.analyser.fftSize = 4096;
    talk.analyser.connect(talk.context.destination);
    talk.playAt = 0;
    talk.meter = setInterval(() => this.measure(talk), 100);
    talk.listening = true;
    this.view.status(talk.codec ? `talking (${talk.codec})` : "opening the talk…");
  }

  send(talk, frame) {
    talk.socket.send(frame);
    const frames = this.log.frames;
    frames.push([talk.sent, performance.timeOrigin + performance.now()]);
    if (frames.length > 1500) frames.splice(0, frames.length - 1500);
    talk.sent += frame.byteLength / 2;
  }

  release() {
    const talk = this.active;
    if (!talk || talk.released) return;
    talk.released = true;
    this.view.status("closing…");
    this.stopMicrophone(talk);
    // What was said is sent before the close frame.
    if (talk.socket.readyState === WebSocket.OPEN) talk.socket.close(1000, "released");
    else talk.socket.onopen = () => {
      for (const frame of talk.waiting) this.send(talk, frame);
      talk.socket.close(1000, "released");
    };
  }

  stopMicrophone(talk) {
    talk.stream?.getTracks().forEach((track) => track.stop());
    talk.worklet?.disconnect();
    if (talk.meter) clearInterval(talk.meter);
    talk.meter = null;
    if (talk.closed && talk.context && talk.context.state !== "closed") talk.context.close();
  }

  received(talk, data) {
    if (typeof data === "string") {
      const message = JSON.parse(data);
      if (message.type === "open") {
        talk.codec = message.codec;
        if (talk.listening && !talk.released) this.view.status(`talking (${message.codec})`);
      }
      if (message.type === "ended" && message.reason) this.view.status(`ended: ${message.reason}`);
      return;
    }
    if (!talk.context || !talk.analyser) return;
    const samples = new Int16Array(data);
    if (samples.length === 0) return;
    const buffer = talk.context.createBuffer(1, samples.length, RATE);
    const channel = buffer.getChannelData(0);
    for (let i = 0; i < samples.length; i++) channel[i] = samples[i] / 32768;
    const node = talk.context.createBufferSource();
    node.buffer = buffer;
    node.connect(talk.analyser);
    // Played back to back, a little behind, so that the network's jitter does not cut it.
    const now = talk.context.currentTime;
    talk.playAt = Math.max(talk.playAt, now + 0.08);
    node.start(talk.playAt);
    talk.playAt += buffer.duration;
  }

  measure(talk) {
    const bins = new Float32Array(talk.analyser.frequencyBinCount);
    talk.analyser.getFloatFrequencyData(bins);
    let best = 0;
    for (let i = 1; i < bins.length; i++) if (bins[i] > bins[best]) best = i;
    if (bins[best] > -70) this.view.heard(best * talk.context.sampleRate / talk.analyser.fftSize);
  }
}
