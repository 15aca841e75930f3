import assert from 'node:assert/strict';
import {test} from 'node:test';
import {audioEntries, checkedLabel, kindEntries, nextRate, qualityEntries, rateEntries, subtitleEntries} from '../../../backend/page/choices.js';
import {cuesAt} from '../../../backend/page/captions.js';
import {engineFor} from '../../../backend/page/engines/choose.js';
import {isSubtitleAt} from '../../../backend/page/engines/hls.js';
import {clockOffset, startSecond, startUrl} from '../../../backend/page/engines/restart.js';
import {HELP, keyAction} from '../../../backend/page/keys.js';
import {answersSeek} from '../../../backend/page/measure.js';
import {panelRows} from '../../../backend/page/panel.js';
import {firstChoice, firstSegment, wishFor} from '../../../backend/page/prepare.js';
import {afterRefusal, afterTrouble} from '../../../backend/page/recovery.js';
import {parseRoute, watchRoute} from '../../../backend/page/router.js';
import {Seeker} from '../../../backend/page/seeker.js';

const FILM = {
  height: 1080,
  audio: [{id: '1', codec: 'aac', channels: 2, language: 'eng'}, {id: '2', codec: 'ac3', channels: 6}],
  profiles: {hls: [{key: 'h', label: '720p'}], webm: [{key: 'w', label: 'VP8'}]},
};
const labels = (entries) => entries.map(({label}) => label);

test('what a stream begins with is asked for before its playlists name it', () => {
  assert.equal(firstSegment({kind: 'hls', url: '/play?id=1'}, 0), '/play?id=1&fragment_id=00000');
  assert.equal(firstSegment({kind: 'hls', url: '/play?id=1'}, 12), null);
  assert.equal(firstSegment({kind: 'smooth', url: '/play?id=1'}, 0), null);
});

test('addresses', () => {
  assert.deepEqual(parseRoute(watchRoute(1804289383)), {view: 'watch', id: 1804289383});
  for (const hash of ['', '#/', '#/watch/', '#/watch/x', '#/watch/1/2', '#/watch/99999999999999999']) {
    assert.deepEqual(parseRoute(hash), {view: 'library'}, hash);
  }
});

test('keys', () => {
  assert.deepEqual(keyAction({key: ' '}), {action: 'toggle'});
  assert.deepEqual(keyAction({key: 'K'}), {action: 'toggle'});
  assert.deepEqual(keyAction({key: 'ArrowLeft'}, 'slider'), {action: 'skip', by: -5});
  assert.deepEqual(keyAction({key: 'ArrowUp'}), {action: 'louder', by: 0.1});
  assert.deepEqual(keyAction({key: 'ArrowUp'}, 'slider'), {action: 'skip', by: 5});
  assert.deepEqual(keyAction({key: '0'}), {action: 'share', to: 0});
  assert.deepEqual(keyAction({key: '7'}), {action: 'share', to: 0.7});
  assert.deepEqual(keyAction({key: '?'}, 'button'), {action: 'help'});
  assert.equal(keyAction({key: ' '}, 'button'), null);
  assert.equal(keyAction({key: 'ArrowLeft'}, 'range'), null);
  assert.equal(keyAction({key: 'k'}, 'textbox'), null);
  assert.equal(keyAction({key: 'f', ctrlKey: true}), null);
  assert.equal(keyAction({key: 'x'}), null);
  assert.equal(keyAction({key: 'toString'}), null);
  assert.ok(HELP.every(([keys, what]) => keys && what));
});

test('seeks that follow quickly wait until they rest', () => {
  let now = 0;
  let pending = null;
  const went = [];
  const seeker = new Seeker((second) => went.push(second), {
    now: () => now,
    setTimeout: (run) => {
      pending = run;
      return 1;
    },
    clearTimeout: () => {
      pending = null;
    },
  });
  seeker.to(10);
  now = 100;
  seeker.to(20);
  now = 200;
  seeker.to(30);
  assert.deepEqual(went, [10]);
  assert.equal(seeker.target, 30);
  pending();
  assert.deepEqual(went, [10, 30]);
  assert.equal(seeker.target, null);
  now = 1000;
  seeker.to(40);
  assert.deepEqual(went, [10, 30, 40]);
  now = 1001;
  seeker.to(50);
  seeker.cancel();
  assert.equal(pending, null);
  assert.equal(seeker.target, null);
});

test('which engine', () => {
  assert.equal(engineFor({kind: 'hls', seek: 'native'}, true), 'hls');
  assert.equal(engineFor({kind: 'hls', seek: 'native'}, false), 'native');
  assert.equal(engineFor({kind: 'smooth', seek: 'native'}, true), 'smooth');
  assert.equal(engineFor({kind: 'file', seek: 'native'}, true), 'native');
  assert.equal(engineFor({kind: 'webm', seek: 'restart'}, true), 'restart');
  assert.equal(engineFor({kind: 'http', seek: 'restart'}, false), 'restart');
});

test('the clock of a stream that begins anywhere', () => {
  assert.equal(clockOffset(0.003, 0), 0);
  assert.equal(clockOffset(33.34, 33.3), 0);
  assert.equal(clockOffset(0.061, 33.3), 33.3);
  assert.equal(clockOffset(31.9, 33.3), 0);
  assert.equal(clockOffset(0.02, 1.5), 1.5);
  assert.equal(clockOffset(1.52, 1.5), 0);
});

test('the address of a second', () => {
  assert.equal(startUrl('/play?format=webm&id=1', 33), '/play?format=webm&id=1&start=33');
  assert.equal(startUrl('/play', 0), '/play?start=0');
});

test('byte streams begin at whole seconds, before the end', () => {
  const cases = [[33.4, 60, 33], [33.6, 60, 34], [60, 60, 59], [59.8, 60.2, 59], [60.7, 60.7, 60],
    [0.2, 0.3, 0], [-1, 60, 0], [12.6, NaN, 13]];
  for (const [wanted, duration, start] of cases) {
    assert.equal(startSecond(wanted, duration), start, `${wanted} of ${duration}`);
  }
});

test('the answer to a seek', () => {
  assert.equal(answersSeek(59.6, 60), true);
  assert.equal(answersSeek(62, 60), true);
  assert.equal(answersSeek(59, 60), false);
  assert.equal(answersSeek(12, 60), false);
});

test('the cues of a second', () => {
  const cues = [{startTime: 5, endTime: 9}, {startTime: 0, endTime: 6}, {startTime: 20, endTime: 21}];
  assert.deepEqual(cuesAt(cues, 5.5), [cues[1], cues[0]]);
  assert.deepEqual(cuesAt(cues, 6), [cues[0]]);
  assert.deepEqual(cuesAt(cues, 21), []);
});

test('a playlist’s subtitle is the one that was chosen', () => {
  const at = (id) => `/api/v1/play?format=hls&id=x&subtitle_id=${encodeURIComponent(id)}&playlist_type=subtitle`;
  assert.equal(isSubtitleAt(at('3'), {id: 't3', name: 'Track 3'}), true);
  assert.equal(isSubtitleAt(at('"3"'), {id: 't3', name: 'Track 3'}), true);
  assert.equal(isSubtitleAt(at('3'), {id: 't13', name: '3'}), false);
  assert.equal(isSubtitleAt(at('/films/a b & c.srt'), {id: 'f0', name: 'a b & c.srt'}), true);
  assert.equal(isSubtitleAt(at('/films/other a.srt'), {id: 'f0', name: 'a.srt'}), false);
  assert.equal(isSubtitleAt('/api/v1/play?format=hls', {id: 'f0', name: ''}), false);
  assert.equal(isSubtitleAt('', {id: 'f0', name: ''}), false);
});

test('a request for a stream', () => {
  assert.deepEqual(wishFor(5, firstChoice(), {mse: true}), {video: 5, kind: 'auto', profile: 'auto',
    subtitle: 'all', can: {mse: true}, device: 'web page'});
  const wish = wishFor(5, {kind: 'hls', profile: 'h', audio: '2', limit: '720'}, {});
  assert.equal(wish.audio, '2');
  assert.equal(wish.limit, '720');
});

test('after trouble', () => {
  const calm = {reopened: false, kind: 'hls', chosen: 'auto'};
  assert.equal(afterTrouble({word: 'stream-ended'}, calm), 'reopen');
  assert.equal(afterTrouble({word: 'stalled'}, calm), 'reopen');
  assert.equal(afterTrouble({word: 'stream-ended'}, {...calm, reopened: true}), 'tell');
  assert.equal(afterTrouble({word: 'not-decodable'}, {...calm, kind: 'file'}), 'convert');
  assert.equal(afterTrouble({word: 'not-decodable'}, {...calm, kind: 'file', chosen: 'file'}), 'tell');
  assert.equal(afterTrouble({word: 'not-decodable'}, calm), 'tell');
  assert.equal(afterTrouble({word: 'busy'}, calm), 'wait');
  assert.equal(afterTrouble({word: 'not-playable'}, calm), 'tell');
});

test('after a refusal', () => {
  const playing = {hasOld: true, replaced: false};
  const nothing = {hasOld: false, replaced: false};
  const replacing = {hasOld: false, replaced: true};
  assert.equal(afterRefusal({word: 'TransEnable'}, playing), 'replace');
  assert.equal(afterRefusal({word: 'TransEnable'}, replacing), 'again');
  assert.equal(afterRefusal({word: 'TransEnable'}, nothing), 'wait');
  assert.equal(afterRefusal({word: 'TransVideoNotSupported'}, playing), 'keep');
  assert.equal(afterRefusal({word: 'TransVideoNotSupported'}, replacing), 'tell');
  assert.equal(afterRefusal({word: 'TransVideoNotSupported'}, nothing), 'tell');
  assert.equal(afterRefusal({word: 'unreachable'}, nothing), 'tell');
});

test('the menus', () => {
  const stream = {kind: 'file', audio: '2'};
  const choice = firstChoice();
  assert.deepEqual(labels(audioEntries(FILM, stream, () => {})), ['English, AAC stereo', 'Track 2, AC3 5.1']);
  assert.equal(checkedLabel(audioEntries(FILM, stream, () => {})), 'Track 2, AC3 5.1');
  assert.equal(checkedLabel(audioEntries(FILM, null, () => {})), 'English, AAC stereo');
  assert.deepEqual(audioEntries({}, null, () => {}), []);
  const subtitles = [{id: 3, name: 'English', language: 'eng'}];
  assert.deepEqual(labels(subtitleEntries(subtitles, null, () => {})), ['None', 'English']);
  assert.equal(checkedLabel(subtitleEntries(subtitles, {id: 3}, () => {})), 'English');
  assert.deepEqual(labels(qualityEntries(FILM, choice, stream, () => {})),
    ['Auto', 'Auto, up to 480p', 'Auto, up to 720p', '720p']);
  assert.deepEqual(labels(qualityEntries({...FILM, height: 480}, {...choice, kind: 'webm'}, stream, () => {})),
    ['Auto', 'VP8']);
  assert.equal(checkedLabel(qualityEntries(FILM, {...choice, limit: '720'}, stream, () => {})), 'Auto, up to 720p');
  assert.equal(kindEntries(choice, stream, () => {})[0].detail, 'The file itself');
  assert.equal(checkedLabel(kindEntries({...choice, kind: 'hls'}, stream, () => {})), 'HLS');
  assert.equal(checkedLabel(rateEntries(1.5, () => {})), '1.5×');
});

test('a choice of quality says which kind it is for', () => {
  let changes = null;
  const entries = qualityEntries(FILM, firstChoice(), {kind: 'file'}, (made) => {
    changes = made;
  });
  entries.find(({label}) => label === '720p').choose();
  assert.deepEqual(changes, {kind: 'hls', profile: 'h', limit: ''});
});

test('speeds', () => {
  assert.equal(nextRate(1, 1), 1.25);
  assert.equal(nextRate(1, -1), 0.75);
  assert.equal(nextRate(2, 1), 2);
  assert.equal(nextRate(0.5, -1), 0.5);
});

test('the panel', () => {
  const facts = {stream: {kind: 'hls', profile: 'h'}, profile: '720p', status: null, spans: [[0, 12]],
    time: 2, firstPictureMs: 412.4, lastSeekMs: null, frames: {totalVideoFrames: 50, droppedVideoFrames: 2},
    width: 1280, height: 720};
  assert.deepEqual(panelRows(facts), [
    ['Stream', 'HLS'], ['Quality', '720p'], ['Picture', '1280 × 720'], ['Converter', 'not known yet'],
    ['Loaded ahead', '10.0 s'], ['First picture after', '412 ms'], ['Last seek took', 'not measured yet'],
    ['Dropped frames', '2 of 50']]);
  const converter = (status) => panelRows({...facts, status}).find(([what]) => what === 'Converter')[1];
  assert.equal(converter({running: true, speed: 11.26}), '11.3× as fast as one watches');
  assert.equal(converter({running: true, speed: null}), 'running');
  assert.equal(converter({running: false, speed: null}), 'not running');
  assert.equal(panelRows({...facts, stream: {kind: 'file'}}).some(([what]) => what === 'Converter'), false);
});
