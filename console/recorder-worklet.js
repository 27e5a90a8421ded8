// Audio thread side of recorder.js: hands each block of the first channel to the page.
class KelvoRecorder extends AudioWorkletProcessor {
  process(inputs) {
    const channel = inputs[0] && inputs[0][0];
    if (channel) this.port.postMessage(channel.slice(0));
    return true;
  }
}

registerProcessor('kelvo-recorder', KelvoRecorder);
