// Modal dialogs of the page: messages, the file dialog (only the folders the server lets
// it reach) and the preference page.
import * as api from '/page/api.js';

// A <dialog> with a title, a body and buttons; resolves with the value of the button
// pressed (or null when it was closed with Escape). `bind(close)` lets the body close it.
function modal(title, body, buttons, bind = () => {}) {
  const dialog = document.createElement('dialog');
  const heading = document.createElement('h3');
  heading.textContent = title;
  const row = document.createElement('div');
  row.className = 'buttons';
  dialog.append(heading, body, row);
  return new Promise((resolve) => {
    const close = (value) => { dialog.close(); dialog.remove(); resolve(value); };
    for (const [label, value] of buttons) {
      const button = document.createElement('button');
      button.textContent = label;
      button.addEventListener('click', () => close(typeof value === 'function' ? value() : value));
      row.append(button);
    }
    dialog.addEventListener('cancel', (event) => { event.preventDefault(); close(null); });
    bind(close);
    document.body.append(dialog);
    dialog.showModal();
  });
}

export function message(text, title = 'Vellgrund') {
  const body = document.createElement('pre');
  body.textContent = text;
  return modal(title, body, [['OK', true]]);
}

export function confirm(text, yes = 'OK') {
  const body = document.createElement('p');
  body.textContent = text;
  return modal('Vellgrund', body, [['Cancel', false], [yes, true]]);
}

const folderOf = (path) => path.replace(/\/[^/]*$/, '') || '/';

// Asks for a file: { mode: 'open' | 'save', title, folder, name, suffix, all }. Resolves with
// { file, overwrite } or null.
export async function chooseFile({ mode, title, folder = '', name = '', suffix = '', all = false }) {
  const body = document.createElement('div');
  body.className = 'files';
  const where = document.createElement('div');
  where.className = 'where';
  const list = document.createElement('div');
  list.className = 'list';
  const input = document.createElement('input');
  input.value = name;
  input.placeholder = 'File name';
  input.readOnly = mode === 'open';
  body.append(where, list, input);
  let current = { folder: '', entries: [] };

  const show = async (path) => {
    try {
      current = await api.get(`/api/files?folder=${encodeURIComponent(path)}${all ? '&all=1' : ''}`);
    } catch (error) {
      if (path) return show('');  // a folder gone or out of reach: start at the roots
      throw error;
    }
    where.textContent = current.folder || 'Folders';
    const rows = [];
    if (current.parent !== null) rows.push({ name: '..', folder: true, path: current.parent });
    for (const entry of current.entries)
      rows.push({ ...entry, path: current.folder ? `${current.folder}/${entry.name}` : entry.name });
    list.replaceChildren(...rows.map((entry) => {
      const row = document.createElement('div');
      row.className = 'file' + (entry.folder ? ' folder' : '');
      row.textContent = entry.folder && entry.name !== '..' ? `${entry.name}/` : entry.name;
      row.addEventListener('click', () => { if (!entry.folder) input.value = entry.name; });
      row.addEventListener('dblclick', () => { if (entry.folder) show(entry.path); else accept(true); });
      return row;
    }));
  };
  let accept = () => {};
  await show(folder);
  const answer = await modal(title, body, [['Cancel', false], [mode === 'open' ? 'Open' : 'Save', true]], (close) => {
    accept = close;
    input.addEventListener('keydown', (event) => { if (event.key === 'Enter') close(true); });
  });
  if (!answer || !current.folder || !input.value.trim()) return null;
  let file = input.value.trim();
  if (suffix && !file.toLowerCase().endsWith(`.${suffix}`)) file += `.${suffix}`;
  const exists = current.entries.some((entry) => entry.name === file && !entry.folder);
  if (mode === 'save' && exists && !(await confirm(`"${file}" exists. Replace it?`, 'Replace'))) return null;
  return { file: `${current.folder}/${file}`, overwrite: exists };
}

export { folderOf };

// The preference page: the resolution cap and the information overlay, stored by the
// server where every front-end reads them.
export async function preferences(current) {
  const body = document.createElement('form');
  body.className = 'preferences';
  body.innerHTML = `
    <label>Maximum resolution per axis <input name="maxResolution" type="number" min="1" max="16384" step="1"></label>
    <label><input name="showOverlay" type="checkbox"> Show the information overlay after each build</label>
    <p class="note" hidden>This scene sets its own preferences; they apply while it is open.</p>`;
  body.maxResolution.value = current.maxResolution;
  body.showOverlay.checked = current.showOverlay;
  body.querySelector('.note').hidden = !current.fromScene;
  const read = () => ({ maxResolution: Number(body.maxResolution.value), showOverlay: body.showOverlay.checked });
  return modal('Preferences', body, [['Cancel', null], ['Save', read]]);
}
