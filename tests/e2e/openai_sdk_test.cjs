// The official OpenAI Node SDK (pinned in openai-sdk/package-lock.json and
// installed by scripts/deps.sh into build/openai-sdk) against the real
// `kelvo serve` on a temporary data root and a free loopback port: what an
// airline's existing OpenAI-based tool does after changing its base URL.
//
// Usage: node openai_sdk_test.cjs <build/kelvo> <build/openai-sdk>
'use strict';
const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const net = require('node:net');
const os = require('node:os');
const path = require('node:path');

const [kelvo, sdkDir] = process.argv.slice(2);
const OpenAI = require(path.join(path.resolve(sdkDir), 'node_modules', 'openai'));

let home, server, baseURL, client;

function freePort() {
  return new Promise((resolve, reject) => {
    const probe = net.createServer().listen(0, '127.0.0.1', () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
    probe.on('error', reject);
  });
}

// One second of a buzzing tone as a 16 kHz WAV: enough to clone a voice from.
function toneWav() {
  const rate = 16000, n = rate;
  const wav = Buffer.alloc(44 + 2 * n);
  wav.write('RIFF', 0); wav.writeUInt32LE(36 + 2 * n, 4); wav.write('WAVEfmt ', 8);
  wav.writeUInt32LE(16, 16); wav.writeUInt16LE(1, 20); wav.writeUInt16LE(1, 22);
  wav.writeUInt32LE(rate, 24); wav.writeUInt32LE(2 * rate, 28); wav.writeUInt16LE(2, 32);
  wav.writeUInt16LE(16, 34); wav.write('data', 36); wav.writeUInt32LE(2 * n, 40);
  for (let i = 0; i < n; i++) wav.writeInt16LE((i >> 4) % 2 ? 9000 : -9000, 44 + 2 * i);
  return wav;
}

before(async () => {
  home = fs.mkdtempSync(path.join(os.tmpdir(), 'kelvo-sdk-'));
  const port = await freePort();
  server = spawn(kelvo, ['serve', '--port', String(port), '--bind', '127.0.0.1'], {
    env: { ...process.env, KELVO_HOME: home, LANGUAGE: 'en' },
    stdio: ['ignore', 'ignore', 'inherit'],
  });
  const root = `http://127.0.0.1:${port}`;
  for (let tries = 0; ; tries++) {
    try {
      if ((await fetch(`${root}/v1/health`)).ok) break;
    } catch (e) {
      if (tries > 400) throw new Error(`kelvo serve did not answer: ${e}`);
      await new Promise((r) => setTimeout(r, 50));
    }
  }
  const clone = await fetch(`${root}/v1/voices/clone`, {
    method: 'POST',
    body: JSON.stringify({ display: 'Gate Anna', language: 'en', gender: 'female',
                           audio: toneWav().toString('base64'), reference_text: 'welcome aboard' }),
  });
  assert.equal(clone.status, 200, await clone.text());
  baseURL = `${root}/v1`;
  // No retries: a refusal must reach the test as the SDK raises it, once.
  client = new OpenAI({ apiKey: 'kelvo-local', baseURL, maxRetries: 0 });
});

after(async () => {
  if (server && server.exitCode === null) {
    const exited = new Promise((resolve) => server.once('exit', resolve));
    server.kill('SIGTERM');
    await exited;
  }
  fs.rmSync(home, { recursive: true, force: true });
});

test('audio.speech.create answers every format with its content type and container', async () => {
  const magic = {
    mp3: (b) => b.subarray(0, 3).toString('latin1') === 'ID3' || (b[0] === 0xff && (b[1] & 0xe0) === 0xe0),
    opus: (b) => b.subarray(0, 4).toString('latin1') === 'OggS' && b.includes('OpusHead'),
    flac: (b) => b.subarray(0, 4).toString('latin1') === 'fLaC',
    wav: (b) => b.subarray(0, 4).toString('latin1') === 'RIFF' && b.subarray(8, 12).toString('latin1') === 'WAVE',
    pcm: (b) => b.length % 2 === 0,
  };
  const types = { mp3: 'audio/mpeg', opus: 'audio/ogg', flac: 'audio/flac', wav: 'audio/wav', pcm: 'audio/pcm' };
  for (const format of Object.keys(magic)) {
    // The display name in another case picks the cloned voice.
    const response = await client.audio.speech.create({
      model: 'tts-1', voice: 'gate anna', input: 'Flight KV 12 is now boarding', response_format: format,
    });
    assert.equal(response.headers.get('content-type'), types[format], format);
    const audio = Buffer.from(await response.arrayBuffer());
    assert.ok(audio.length > 1000 && magic[format](audio), `${format}: ${audio.subarray(0, 16).toString('hex')}`);
    if (format === 'pcm') {
      // Raw 16-bit mono at 24 kHz: the length follows the line's duration.
      const ms = Number(response.headers.get('x-kelvo-duration-ms'));
      assert.ok(Math.abs(audio.length / 48 - ms) < 5, `${audio.length} bytes for ${ms} ms`);
    }
  }
  // Without response_format the API's default, MP3, comes back.
  const plain = await client.audio.speech.create({ model: 'kelvo', voice: 'Gate Anna', input: 'Gate B 12' });
  assert.equal(plain.headers.get('content-type'), 'audio/mpeg');
});

test('refusals surface as the SDK error types with the OpenAI fields', async () => {
  const cases = [
    [{ response_format: 'aac' }, OpenAI.BadRequestError, 400, 'response_format', /mp3, opus, flac, wav, pcm/],
    [{ voice: 'alloy' }, OpenAI.NotFoundError, 404, 'voice', /alloy/],
    [{ input: '  ' }, OpenAI.BadRequestError, 400, 'input', /no text/],
    [{ speed: 5 }, OpenAI.BadRequestError, 400, 'speed', /0\.25 and 4\.0/],
  ];
  for (const [change, type, status, param, message] of cases) {
    const body = { model: 'tts-1', voice: 'Gate Anna', input: 'Final call', ...change };
    await assert.rejects(client.audio.speech.create(body), (e) => {
      assert.ok(e instanceof type && e instanceof OpenAI.APIError, `${JSON.stringify(change)}: ${e}`);
      assert.equal(e.status, status);
      assert.equal(e.param, param);
      assert.equal(e.type, 'invalid_request_error');
      assert.match(e.message, message);
      return true;
    });
  }
});

test('models.list names this engine under the names clients send', async () => {
  const ids = [];
  for await (const model of client.models.list()) {
    ids.push(model.id);
    assert.equal(model.owned_by, 'kelvo');
  }
  assert.deepEqual(ids, ['kelvo', 'tts-1', 'tts-1-hd']);
});
