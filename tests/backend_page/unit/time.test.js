import assert from 'node:assert/strict';
import {test} from 'node:test';
import {clampTime, formatTime, secondsAhead, spansOf, spokenTime} from '../../../backend/page/time.js';

test('a time for the eye', () => {
  const cases = [[0, '0:00'], [7.99, '0:07'], [59.999, '0:59'], [60, '1:00'], [754, '12:34'],
    [3600, '1:00:00'], [3723, '1:02:03'], [359999, '99:59:59'], [-1, '0:00'], [NaN, '0:00'],
    [Infinity, '0:00'], [undefined, '0:00']];
  for (const [seconds, text] of cases) assert.equal(formatTime(seconds), text, String(seconds));
});

test('a time for the ear', () => {
  const cases = [[0, '0 seconds'], [1, '1 second'], [61, '1 minute 1 second'], [120, '2 minutes'],
    [3600, '1 hour'], [3723, '1 hour 2 minutes 3 seconds'], [NaN, '0 seconds']];
  for (const [seconds, text] of cases) assert.equal(spokenTime(seconds), text, String(seconds));
});

test('a second of the film', () => {
  assert.equal(clampTime(-3, 10), 0);
  assert.equal(clampTime(11, 10), 10);
  assert.equal(clampTime(4.5, 10), 4.5);
  assert.equal(clampTime(11, NaN), 11);
  assert.equal(clampTime(NaN, 10), 0);
});

test('what is loaded ahead', () => {
  const spans = [[0, 10], [20, 25.5]];
  assert.equal(secondsAhead(spans, 4), 6);
  assert.equal(secondsAhead(spans, 15), 0);
  assert.equal(secondsAhead(spans, 10), 0);
  assert.equal(secondsAhead(spans, 19.9), 5.6000000000000014);
  assert.equal(secondsAhead([], 0), 0);
});

test('ranges become spans in the film’s time', () => {
  const ranges = {length: 2, start: (i) => [0, 20][i], end: (i) => [10, 30][i]};
  assert.deepEqual(spansOf(ranges), [[0, 10], [20, 30]]);
  assert.deepEqual(spansOf(ranges, 100), [[100, 110], [120, 130]]);
});
