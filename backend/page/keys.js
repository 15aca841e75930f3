// What the keys do in the player. Pure.

/** For the help dialog: keys, and what they do. */
export const HELP = Object.freeze([
  ['Space, k', 'Play or pause'],
  ['← →', '5 seconds back or on'],
  ['j l', '10 seconds back or on'],
  ['0 – 9', 'To that tenth of the film'],
  ['Home End', 'To the beginning or the end'],
  ['↑ ↓', 'Louder or quieter'],
  ['m', 'Sound off or on'],
  ['f', 'Full screen'],
  ['c', 'Subtitles: the next, or none'],
  ['a', 'The next audio track'],
  ['< >', 'Slower or faster'],
  ['i', 'What is happening'],
  ['?', 'This help'],
  ['Esc', 'Close a menu, leave full screen'],
]);

const PLAIN = {
  ' ': {action: 'toggle'},
  'k': {action: 'toggle'},
  'ArrowLeft': {action: 'skip', by: -5},
  'ArrowRight': {action: 'skip', by: 5},
  'j': {action: 'skip', by: -10},
  'l': {action: 'skip', by: 10},
  'Home': {action: 'share', to: 0},
  'End': {action: 'share', to: 1},
  'ArrowUp': {action: 'louder', by: 0.1},
  'ArrowDown': {action: 'louder', by: -0.1},
  'm': {action: 'mute'},
  'f': {action: 'fullscreen'},
  'c': {action: 'subtitle'},
  'a': {action: 'audio'},
  'i': {action: 'panel'},
  '<': {action: 'rate', by: -1},
  '>': {action: 'rate', by: 1},
  '?': {action: 'help'},
};

// Where these roles have the focus, these keys are theirs.
const OWN_KEYS = {
  button: [' ', 'Enter'],
  slider: [],
  range: ['ArrowLeft', 'ArrowRight', 'ArrowUp', 'ArrowDown', 'Home', 'End', 'PageUp', 'PageDown'],
  textbox: null,
};

/**
 * What a key asks for.
 * @param {{key: string, ctrlKey?: boolean, altKey?: boolean, metaKey?: boolean}} event
 * @param {'button'|'slider'|'range'|'textbox'|'other'} [focus] what has the focus
 * @returns {?{action: string, by?: number, to?: number}} null where the key is not the player's
 */
export function keyAction(event, focus = 'other') {
  if (event.ctrlKey || event.altKey || event.metaKey) return null;
  const own = OWN_KEYS[focus];
  if (own === null || own?.includes(event.key)) return null;
  // On a slider up is on (the seek bar's own direction), elsewhere it is louder.
  if (focus === 'slider' && event.key === 'ArrowUp') return PLAIN.ArrowRight;
  if (focus === 'slider' && event.key === 'ArrowDown') return PLAIN.ArrowLeft;
  if (/^[0-9]$/.test(event.key)) return {action: 'share', to: Number(event.key) / 10};
  const key = event.key.length === 1 ? event.key.toLowerCase() : event.key;
  return Object.hasOwn(PLAIN, key) ? PLAIN[key] : null;
}

/**
 * What kind of element has the focus, for keyAction().
 * @param {?Element} focused
 * @returns {'button'|'slider'|'range'|'textbox'|'other'}
 */
export function focusKind(focused) {
  if (!focused) return 'other';
  if (focused.matches('button, a[href], summary')) return 'button';
  if (focused.matches('[role=slider]')) return 'slider';
  if (focused.matches('input[type=range]')) return 'range';
  if (focused.matches('input, textarea, select')) return 'textbox';
  return 'other';
}
