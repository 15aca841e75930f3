// Times as people read and hear them. Pure.

/**
 * A time for the eye: "0:07", "12:34", "1:02:03".
 * @param {number} seconds; what is no number, or below 0, counts as 0
 * @returns {string}
 */
export function formatTime(seconds) {
  const whole = wholeSeconds(seconds);
  const two = (value) => String(value).padStart(2, '0');
  const hours = Math.floor(whole / 3600);
  const minutes = Math.floor(whole / 60) % 60;
  return hours > 0 ? `${hours}:${two(minutes)}:${two(whole % 60)}` : `${minutes}:${two(whole % 60)}`;
}

/**
 * A time for the ear: "1 hour 2 minutes 3 seconds".
 * @param {number} seconds
 * @returns {string}
 */
export function spokenTime(seconds) {
  const whole = wholeSeconds(seconds);
  const parts = [
    [Math.floor(whole / 3600), 'hour'],
    [Math.floor(whole / 60) % 60, 'minute'],
    [whole % 60, 'second'],
  ].filter(([value]) => value > 0).map(([value, unit]) => `${value} ${unit}${value === 1 ? '' : 's'}`);
  return parts.join(' ') || '0 seconds';
}

/**
 * A second that lies in the film.
 * @param {number} second
 * @param {number} duration seconds; not finite where it is not known
 * @returns {number} 0 to `duration`
 */
export function clampTime(second, duration) {
  const least = Math.max(0, Number.isFinite(second) ? second : 0);
  return Number.isFinite(duration) ? Math.min(least, Math.max(0, duration)) : least;
}

/**
 * How far a span of time that holds `second` reaches on.
 * @param {Array<[number, number]>} spans begin and end, seconds, ascending
 * @param {number} second
 * @returns {number} seconds from `second` to the end of the span, 0 outside all of them
 */
export function secondsAhead(spans, second) {
  // A player stands a little before what it has, between two frames say.
  const span = spans.find(([begin, end]) => begin - 0.25 <= second && second < end);
  return span ? span[1] - second : 0;
}

/**
 * A media element's TimeRanges as pairs.
 * @param {TimeRanges} ranges
 * @param {number} [offset] added to each, seconds
 * @returns {Array<[number, number]>}
 */
export function spansOf(ranges, offset = 0) {
  return Array.from({length: ranges.length}, (_, i) => [ranges.start(i) + offset, ranges.end(i) + offset]);
}

function wholeSeconds(seconds) {
  return Number.isFinite(seconds) && seconds > 0 ? Math.floor(seconds) : 0;
}
