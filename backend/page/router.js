// The page's addresses: "#/" the library, "#/watch/ID" the player. Pure.

/**
 * @param {string} hash location.hash
 * @returns {{view: 'library'}|{view: 'watch', id: number}}
 */
export function parseRoute(hash) {
  const id = Number(/^#\/watch\/(\d{1,15})$/.exec(hash)?.[1] ?? NaN);
  return Number.isInteger(id) ? {view: 'watch', id} : {view: 'library'};
}

/** @param {number} id @returns {string} the address of a video's player */
export function watchRoute(id) {
  return `#/watch/${id}`;
}
