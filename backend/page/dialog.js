// Dialogs: the help.
import {element} from './dom.js';
import {HELP} from './keys.js';

/**
 * The list of keys, as a modal dialog.
 * @returns {HTMLDialogElement} to be put into the page and shown with showModal()
 */
export function helpDialog() {
  const rows = HELP.map(([keys, what]) => element('tr', {},
    element('th', {scope: 'row'}, element('kbd', {}, keys)), element('td', {}, what)));
  const dialog = element('dialog', {class: 'help', 'aria-labelledby': 'help-title'},
    element('h2', {id: 'help-title'}, 'Keys'),
    element('table', {}, element('tbody', {}, ...rows)),
    element('button', {type: 'button', class: 'text-button', on: {click: () => dialog.close()}}, 'Close'));
  dialog.addEventListener('keydown', (event) => event.stopPropagation());
  dialog.addEventListener('click', (event) => event.target === dialog && dialog.close());
  return dialog;
}
