import assert from 'node:assert/strict';
import {test} from 'node:test';
import {askBrowser, decide, decodingQuestion, splitType} from '../../../backend/page/capabilities.js';

const CHECK = {name: 'file', type: 'video/mp4; codecs="avc1.64001f, mp4a.40.2"', width: 1280,
  height: 720, frame_rate: 25, bit_rate: 2000000};

test('a type is taken apart', () => {
  assert.deepEqual(splitType(CHECK.type),
    {container: 'video/mp4', video: ['avc1.64001f'], audio: ['mp4a.40.2']});
  assert.deepEqual(splitType('video/webm;codecs=vp9'), {container: 'video/webm', video: ['vp9'], audio: []});
  assert.deepEqual(splitType('Video/WebM; codecs="vp8, vorbis"'),
    {container: 'video/webm', video: ['vp8'], audio: ['vorbis']});
  assert.deepEqual(splitType('video/mp4'), {container: 'video/mp4', video: [], audio: []});
});

test('the question is about one codec each', () => {
  assert.deepEqual(decodingQuestion(CHECK, 'file'), {
    type: 'file',
    video: {contentType: 'video/mp4; codecs="avc1.64001f"', width: 1280, height: 720,
      bitrate: 2000000, framerate: 25},
    audio: {contentType: 'audio/mp4; codecs="mp4a.40.2"'},
  });
});

test('what is not known is filled in, what cannot be asked is not', () => {
  const question = decodingQuestion({...CHECK, bit_rate: undefined, frame_rate: 0}, 'media-source');
  assert.equal(question.type, 'media-source');
  assert.equal(question.video.bitrate, 1);
  assert.equal(question.video.framerate, 25);
  assert.equal(decodingQuestion({...CHECK, width: undefined}, 'file'), null);
  assert.equal(decodingQuestion({...CHECK, type: 'video/mp4'}, 'file'), null);
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
  const checks = [CHECK, {...CHECK, name: 'mkv', type: 'video/x-matroska; codecs="avc1.64001f"'}];
  assert.deepEqual(await askBrowser(checks, browser()), {mse: true, hls: false, file: true, mkv: false});
});

test('a browser that cannot say, refuses to, or has no media sources', async () => {
  const refusing = browser({decodingInfo: () => Promise.reject(new TypeError('no'))});
  assert.deepEqual(await askBrowser([CHECK], refusing), {mse: true, hls: false, file: true});
  assert.deepEqual(await askBrowser([CHECK], browser({decodingInfo: null})), {mse: true, hls: false, file: true});
  const unable = browser({decodingInfo: async () => ({supported: false})});
  assert.deepEqual(await askBrowser([CHECK], unable), {mse: true, hls: false, file: false});
  const apple = browser({isTypeSupported: null, canPlayType: () => 'maybe'});
  assert.deepEqual(await askBrowser([{...CHECK, name: 'mse-hevc'}], apple), {mse: false, hls: true, 'mse-hevc': false});
  assert.deepEqual(await askBrowser(undefined, browser()), {mse: true, hls: false});
});
