// Records the microphone in the page as 16-bit mono WAV. The browser's own
// MediaRecorder produces Opus, which the service refuses as a reference clip,
// so the samples are taken raw from an AudioWorklet and packed here.
const workletUrl = new URL('./recorder-worklet.js', import.meta.url);

export class WavRecorder {
  async start() {
    try {
      this.stream = await navigator.mediaDevices.getUserMedia({ audio: { channelCount: 1 } });
      this.context = new AudioContext();
      await this.context.audioWorklet.addModule(workletUrl);
      this.chunks = [];
      this.source = this.context.createMediaStreamSource(this.stream);
      this.node = new AudioWorkletNode(this.context, 'kelvo-recorder');
      this.node.port.onmessage = (event) => this.chunks.push(event.data);
      this.source.connect(this.node);
    } catch (error) {
      await this.release();
      throw error;
    }
  }

  // Stops and resolves to a WAV Blob of everything heard since start().
  async stop() {
    this.source.disconnect();
    this.node.port.onmessage = null;
    const rate = this.context.sampleRate;
    await this.release();
    return encodeWav(this.chunks, rate);
  }

  // Lets go of the microphone and the audio context, keeping what was heard;
  // safe after a failed start() and more than once.
  async release() {
    if (this.stream) for (const track of this.stream.getTracks()) track.stop();
    const context = this.context;
    this.stream = null;
    this.context = null;
    if (context && context.state !== 'closed') await context.close();
  }
}

function encodeWav(chunks, rate) {
  const frames = chunks.reduce((sum, c) => sum + c.length, 0);
  const view = new DataView(new ArrayBuffer(44 + frames * 2));
  const text = (offset, s) => [...s].forEach((ch, i) => view.setUint8(offset + i, ch.charCodeAt(0)));
  text(0, 'RIFF');
  view.setUint32(4, 36 + frames * 2, true);
  text(8, 'WAVEfmt ');
  view.setUint32(16, 16, true);
  view.setUint16(20, 1, true);
  view.setUint16(22, 1, true);
  view.setUint32(24, rate, true);
  view.setUint32(28, rate * 2, true);
  view.setUint16(32, 2, true);
  view.setUint16(34, 16, true);
  text(36, 'data');
  view.setUint32(40, frames * 2, true);
  let offset = 44;
  for (const chunk of chunks) {
    for (const sample of chunk) {
      const s = Math.max(-1, Math.min(1, sample));
      view.setInt16(offset, s < 0 ? s * 0x8000 : s * 0x7fff, true);
      offset += 2;
    }
  }
  return new Blob([view], { type: 'audio/wav' });
}
