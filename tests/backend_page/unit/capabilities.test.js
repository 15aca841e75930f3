import assert from 'node:assert/strict';
import {test} from 'node:test';
import {askBrowser, decide, decodingQuestion} from '../../../backend/page/capabilities.js';

const CHECK = {name: 'direct', type: 'video/mp4; codecs="avc1.64001f, mp4a.40.2"',
  video: 'video/mp4; codecs="avc1.64001f"', audio: 'audio/mp4; codecs="mp4a.40.2"', width: 1280,
  height: 720, frame_rate: 25, bit_rate: 2000000};

test('the question is about one codec each', () => {
  assert.deepEqual(decodingQuestion(CHECK, 'file'), {
    type: 'file',
    video: {contentType: CHECK.video, width: 1280, height: 720, bitrate: 2000000, framerate: 25},
    audio: {contentType: CHECK.audio},
  });
});

test('what is not known is filled in, what cannot be asked is not', () => {
  const question = decodingQuestion({...CHECK, audio: '', bit_rate: undefined, frame_rate: 0}, 'media-source');
  assert.deepEqual(question, {type: 'media-source',
    video: {contentType: CHECK.video, width: 1280, height: 720, bitrate: 1, framerate: 25}});
  assert.equal(decodingQuestion({...CHECK, width: undefined}, 'file'), null);
  assert.equal(decodingQuestion({...CHECK, video: ''}, 'file'), null);
});

test('either no is a no, and no opinion is none', () => {
  assert.equal(decide(true, {supported: true}), true);
  assert.equal(decide(true, {supported: false}), false);
  assert.equal(decide(false, {supported: true}), false);
  assert.equal(decide(true, null), true);
  assert.equal(decide(false, null), false);
});

const browser = (changes) => ({
  canPlayType: (type) => (type.startsWith('video/mp4') ? 'probably' : ''),
  isTypeSupported: (type) => type.startsWith('video/mp4'),
  decodingInfo: async () => ({supported: true}),
  ...changes,
});

test('a browser is asked check by check', async () => {
  const checks = [CHECK, {...CHECK, name: 'http', type: 'video/x-matroska; codecs="avc1.64001f"'}];
  assert.deepEqual(await askBrowser(checks, browser()), {mse: true, hls: false, direct: true, http: false});
});

test('a browser that cannot say, refuses to, or has no media sources', async () => {
  const refusing = browser({decodingInfo: () => Promise.reject(new TypeError('no'))});
  assert.deepEqual(await askBrowser([CHECK], refusing), {mse: true, hls: false, direct: true});
  assert.deepEqual(await askBrowser([CHECK], browser({decodingInfo: null})), {mse: true, hls: false, direct: true});
  const unable = browser({decodingInfo: async () => ({supported: false})});
  assert.deepEqual(await askBrowser([CHECK], unable), {mse: true, hls: false, direct: false});
  const apple = browser({isTypeSupported: null, canPlayType: () => 'maybe'});
  assert.deepEqual(await askBrowser([{...CHECK, name: 'h264'}], apple), {mse: false, hls: true, h264: true});
  assert.deepEqual(await askBrowser(undefined, browser()), {mse: true, hls: false});
});

test('what Media Source Extensions play is asked of them', async () => {
  const asked = [];
  const means = browser({
    isTypeSupported: () => false,
    decodingInfo: async ({type}) => {
      asked.push(type);
      return {supported: true};
    },
  });
  const checks = ['direct', 'remux', 'h264', 'webm'].map((name) => ({...CHECK, name}));
  assert.deepEqual(await askBrowser(checks, means),
    {mse: true, hls: false, direct: true, remux: false, h264: false, webm: true});
  assert.deepEqual(asked, ['file', 'file']);
});
