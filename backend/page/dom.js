// Elements, built without markup text, so that nothing from a file name or a subtitle can become markup.

const SVG = 'http://www.w3.org/2000/svg';

/**
 * Makes an element.
 * @param {string} tag its name
 * @param {Object<string, *>} [properties] `class`, `data`, `on` (listeners by event name), ARIA
 *     attributes and everything else with a dash as attributes, the rest as properties; undefined
 *     and null are left out
 * @param {...(Node|string|null|undefined)} children
 * @returns {HTMLElement}
 */
export function element(tag, properties = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (value === undefined || value === null) continue;
    if (name === 'class') made.className = value;
    else if (name === 'data') Object.assign(made.dataset, value);
    else if (name === 'on') {
      for (const [event, listener] of Object.entries(value)) made.addEventListener(event, listener);
    } else if (name === 'role' || name.includes('-')) made.setAttribute(name, String(value));
    else made[name] = value;
  }
  made.append(...children.filter((child) => child !== null && child !== undefined));
  return made;
}

/**
 * A picture out of the sprite in index.html.
 * @param {string} name
 * @returns {SVGElement}
 */
export function icon(name) {
  const svg = document.createElementNS(SVG, 'svg');
  svg.setAttribute('class', 'icon');
  svg.setAttribute('viewBox', '0 0 24 24');
  svg.setAttribute('aria-hidden', 'true');
  const use = document.createElementNS(SVG, 'use');
  use.setAttribute('href', `#icon-${name}`);
  svg.append(use);
  return svg;
}

/**
 * Shows another picture in what icon() made.
 * @param {Element} holder an element that holds one
 * @param {string} name
 */
export function setIcon(holder, name) {
  holder.querySelector('use').setAttribute('href', `#icon-${name}`);
}

/**
 * A button that shows a picture and says in words what it does.
 * @param {string} name the picture
 * @param {string} label
 * @param {Object<string, *>} [properties] as element() takes them
 * @returns {HTMLButtonElement}
 */
export function iconButton(name, label, properties = {}) {
  return element('button',
    {type: 'button', class: 'icon-button', 'aria-label': label, title: label, ...properties},
    icon(name));
}
