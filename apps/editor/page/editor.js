// The editor's page: the tree, the attribute panel, the viewport and the menus, kept in step
// with the server through its event stream.
import * as api from '/page/api.js';
import * as dialogs from '/page/dialogs.js';
import { Panel } from '/page/panel.js';
import { Tree, iconStyle, loadSheets } from '/page/tree.js';
import { Viewport } from '/page/viewport.js';

const $ = (selector) => document.querySelector(selector);
// Set up by start(), which the load event does not wait for: the page is usable as soon as
// its modules are in, and the view follows.
let types, commandIds, viewport, panel, tree;
let state = null;

async function start() {
  types = await api.get('/api/types');
  commandIds = Object.fromEntries(types.menu.filter((e) => e.kind === 'command').map((e) => [e.type, e.id]));
  await loadSheets(new Set([...types.menu, ...Object.values(types.nodeTypes)]
    .filter((entry) => entry.icon).map((entry) => entry.icon.sheet.replace(/\.[^.]+$/, '.png'))));
  viewport = new Viewport($('#view'));
  panel = new Panel($('#panel'), types, send, (id) => (state ? find(everything(), id) : null));
  tree = new Tree($('#tree'), types, {
    select: (nodes) => send({ action: 'select', nodes }),
    move: (node, parent, before, mask = false) => send({ action: 'move', node, parent, before, mask }),
    enable: (node, enabled) => send({ action: 'enable', node, enabled }),
    rename: (node, name) => send({ action: 'rename', node, name }),
  });
  api.events({
    document: () => refresh().catch((error) => say(error.message)),
    progress: (progress) => { $('#status').textContent = progress.text ?? ''; },
    build: (summary) => {
      $('#status').textContent = '';
      if (summary.version) showBuild(summary);
    },
  });
}

function say(text) {
  const box = $('#message');
  box.textContent = text;
  box.hidden = !text;
  clearTimeout(say.timer);
  if (text) say.timer = setTimeout(() => { box.hidden = true; }, 5000);
}

async function send(request) {
  try {
    const reply = await api.edit(request);
    await answerDialogs(request, reply);
    return reply;
  } catch (error) {
    say(error.message);
    throw error;
  }
}

// What a command or button asked of the user: messages to read, a page to open, a file to
// choose (the request goes again with the answer).
async function answerDialogs(request, reply) {
  if (reply.page) window.open(api.withToken(reply.page), '_blank');
  for (const text of reply.messages ?? []) await dialogs.message(text);
  if (reply.dialog) {
    const { title, name, suffix } = reply.dialog;
    const chosen = await dialogs.chooseFile({ mode: 'save', title, folder: sceneFolder(), name: `${name}.${suffix}`, suffix, all: true });
    if (chosen) await send({ ...request, file: chosen.file });
  }
}

const sceneFolder = () => (state?.scene ? dialogs.folderOf(state.scene) : '');

// The objects and the materials with their shaders.
const everything = () => [...state.tree, ...(state.materials ?? [])];

function find(nodes, id) {
  for (const node of nodes) {
    if (node.id === id) return node;
    const inside = find(node.children, id);
    if (inside) return inside;
  }
  return null;
}

// Pushes can come faster than a refresh completes, and replies over separate connections can
// arrive out of order: one refresh runs at a time and reruns once if asked for meanwhile, so
// an older state never paints over a newer one.
let refreshing = null;
let refreshAgain = false;

function refresh() {
  if (refreshing) {
    refreshAgain = true;
    return refreshing;
  }
  refreshing = (async () => {
    do {
      refreshAgain = false;
      await refreshOnce();
    } while (refreshAgain);
  })().finally(() => { refreshing = null; });
  return refreshing;
}

async function refreshOnce() {
  state = await api.get('/api/state');
  tree.render(state);
  const active = state.selection.at(-1);
  panel.show(active === undefined ? null : await api.get(`/api/node?id=${active}`).catch(() => null));
  renderMenus();
  drawOverlay();
}

// --- Menus ---------------------------------------------------------------------------
const keysOf = {
  IncreaseResCommand: '+', DecreaseResCommand: '-', NextBlendmodeCommand: ']', PreviousBlendmodeCommand: '[',
  GroupOperatorsCommand: 'Ctrl+G', UngroupOperatorsCommand: 'Ctrl+Shift+G',
};

function item(label, action, { keys = '', enabled = true, icon = null } = {}) {
  const button = document.createElement('button');
  if (icon) {
    const span = document.createElement('span');
    span.className = 'icon';
    span.style.cssText = iconStyle(icon);
    button.append(span);
  }
  button.append(label);
  if (keys) {
    const hint = document.createElement('span');
    hint.className = 'keys';
    hint.textContent = keys;
    button.append(hint);
  }
  button.disabled = !enabled;
  button.addEventListener('click', () => { closeMenus(); action(); });
  return button;
}

function fill(menu, entries) {
  const items = $(`${menu} .items`);
  items.replaceChildren(...entries.map((entry) => entry ?? document.createElement('hr')));
}

function renderMenus() {
  const terrain = selectedTerrain();
  fill('#menu-file', [
    item('Open…', open, { keys: 'Ctrl+O' }),
    item('Save', save, { keys: 'Ctrl+S' }),
    item('Save as…', saveAs, { keys: 'Ctrl+Shift+S' }),
    null,
    item('Export height map…', () => send({ action: 'button', node: terrain.id, parameter: TERRAIN_EXPORT }), { enabled: !!terrain }),
    item('Export mesh…', exportMesh, { enabled: !!terrain }),
    null,
    item('Preferences…', editPreferences),
  ]);
  fill('#menu-edit', [
    item('Undo', () => send({ action: 'undo' }), { keys: 'Ctrl+Z', enabled: state.undo > 0 }),
    item('Redo', () => send({ action: 'redo' }), { keys: 'Ctrl+Shift+Z', enabled: state.redo > 0 }),
    null,
    item('Delete', removeSelected, { keys: 'Del', enabled: state.selection.length > 0 }),
  ]);
  const objects = [];
  const commands = [];
  let list = objects;
  for (const entry of types.menu) {
    if (entry.kind === 'command') list = commands;
    if (entry.kind === 'separator') { list.push(null); continue; }
    if (entry.kind === 'object') list.push(item(entry.name, () => insert(entry.type), { icon: entry.icon }));
    else list.push(item(entry.name, () => command(entry.type), {
      keys: keysOf[entry.type] ?? '', enabled: state.commands[entry.id], icon: entry.icon,
    }));
  }
  while (objects.at(-1) === null) objects.pop();
  while (commands[0] === null) commands.shift();
  // Then a material, and the shaders, which go into the selected material or shader.
  const selected = state.selection.length ? find(state.materials ?? [], state.selection.at(-1)) : null;
  objects.push(null);
  for (const entry of types.shading ?? [])
    objects.push(item(entry.name, () => insert(entry.type), { icon: entry.icon, enabled: entry.kind === 'material' || !!selected }));
  fill('#menu-add', objects);
  fill('#menu-commands', commands);
  const overlay = state.preferences.showOverlay;
  fill('#menu-view', [
    item('Frame selected', frameSelected, { keys: 'F' }),
    item(viewport.wireframe ? 'Shaded' : 'Wireframe', () => { viewport.wireframe = !viewport.wireframe; renderMenus(); }, { keys: 'W' }),
    item(overlay ? 'Hide information' : 'Show information', () => send({ action: 'preferences', showOverlay: !overlay })),
  ]);
}

function closeMenus() { document.querySelectorAll('.menu.open').forEach((m) => m.classList.remove('open')); }
document.querySelectorAll('.menu > button').forEach((button) => button.addEventListener('click', (event) => {
  event.stopPropagation();
  const menu = button.parentElement;
  const open = menu.classList.contains('open');
  closeMenus();
  if (!open) menu.classList.add('open');
}));
document.addEventListener('click', closeMenus);

// New nodes go into the selected terrain or group, beside a selected operator, or into the
// first terrain; a terrain goes to the top level. A material goes among the materials, a
// shader into the selected material or under the selected shader as its input.
function insert(type) {
  const shading = types.shading?.find((entry) => entry.type === type);
  if (shading) {
    const parent = shading.kind === 'shader' ? state.selection.at(-1) : null;
    send({ action: 'insert', type, parent }).catch(() => {});
    return;
  }
  const selected = state.selection.length ? find(state.tree, state.selection.at(-1)) : null;
  let parent = null;
  if (type !== 'oterrain') {
    if (selected && (selected.type === 'oterrain' || selected.type === 'ogroupoperator')) parent = selected.id;
    else if (selected) parent = parentOf(state.tree, selected.id)?.id ?? null;
    else parent = state.tree.find((n) => n.type === 'oterrain')?.id ?? null;
  }
  send({ action: 'insert', type, parent });
}

function parentOf(nodes, id, parent = null) {
  for (const node of nodes) {
    if (node.id === id) return parent;
    const found = parentOf(node.children, id, node);
    if (found !== undefined) return found;
  }
  return undefined;
}

function command(type, modifier = false) {
  const id = commandIds[type];
  if (id !== undefined && state.commands[id]) send({ action: 'command', command: id, modifier });
}

function removeSelected() {
  if (state.selection.length) send({ action: 'remove', nodes: state.selection });
}

const TERRAIN_EXPORT = 10091;  // the Terrain's export button

// The selected terrain, the terrain of a selected operator, or the first terrain.
function selectedTerrain() {
  for (const id of [...state.selection].reverse()) {
    const top = state.tree.find((node) => node.id === id || find(node.children, id));
    if (top?.type === 'oterrain') return top;
  }
  return state.tree.find((node) => node.type === 'oterrain') ?? null;
}

function frameSelected() {
  const terrain = selectedTerrain();
  viewport.frame(terrain ? viewport.terrains.get(terrain.id) : undefined);
}

async function open() {
  const chosen = await dialogs.chooseFile({ mode: 'open', title: 'Open scene', folder: sceneFolder() });
  if (chosen) send({ action: 'open', file: chosen.file }).then(() => viewport.forgetAll()).catch(() => {});
}

async function save() {
  if (!state.scene) return saveAs();
  try {
    await api.edit({ action: 'save' });
    say('');
  } catch (error) {
    if (!error.message.includes('save again to overwrite it')) return say(error.message);
    if (await dialogs.confirm(error.message, 'Overwrite')) send({ action: 'save', overwrite: true }).catch(() => {});
  }
}

async function saveAs() {
  const name = state.scene ? state.scene.replace(/^.*\//, '') : 'terrain.json';
  const chosen = await dialogs.chooseFile({ mode: 'save', title: 'Save scene as', folder: sceneFolder(), name, suffix: 'json' });
  if (chosen) send({ action: 'save', file: chosen.file, overwrite: chosen.overwrite }).catch(() => {});
}

async function exportMesh() {
  const terrain = selectedTerrain();
  const chosen = await dialogs.chooseFile({
    mode: 'save', title: 'Export mesh (.glb, .obj or .ply)', folder: sceneFolder(), name: `${terrain.name || 'Terrain'}.glb`, all: true,
  });
  if (chosen) send({ action: 'export', node: terrain.id, file: chosen.file, overwrite: chosen.overwrite }).catch(() => {});
}

async function editPreferences() {
  const values = await dialogs.preferences(state.preferences);
  if (values) send({ action: 'preferences', ...values }).catch(() => {});
}

document.addEventListener('keydown', (event) => {
  if (event.target instanceof HTMLInputElement || event.target instanceof HTMLTextAreaElement ||
      event.target instanceof HTMLSelectElement || document.querySelector('dialog[open]')) return;
  const ctrl = event.ctrlKey || event.metaKey;
  const key = event.key.toLowerCase();
  let handled = true;
  if (ctrl && key === 'z') send({ action: event.shiftKey ? 'redo' : 'undo' });
  else if (ctrl && key === 'y') send({ action: 'redo' });
  else if (ctrl && key === 's') (event.shiftKey ? saveAs : save)();
  else if (ctrl && key === 'o') open();
  else if (ctrl && key === 'g') command(event.shiftKey ? 'UngroupOperatorsCommand' : 'GroupOperatorsCommand');
  else if (ctrl) handled = false;
  else if (event.code === 'Equal' || event.code === 'NumpadAdd') command('IncreaseResCommand', event.shiftKey);
  else if (event.code === 'Minus' || event.code === 'NumpadSubtract') command('DecreaseResCommand', event.shiftKey);
  else if (event.key === ']') command('NextBlendmodeCommand');
  else if (event.key === '[') command('PreviousBlendmodeCommand');
  else if (event.key === 'Delete' || event.key === 'Backspace') removeSelected();
  else if (key === 'f') frameSelected();
  else if (key === 'w') { viewport.wireframe = !viewport.wireframe; renderMenus(); }
  else handled = false;
  if (handled) event.preventDefault();
});

// --- Builds ----------------------------------------------------------------------------
let lastBuild = null;
let fetching = null;

async function showBuild(summary) {
  lastBuild = summary;
  if (fetching) return;  // the newest summary is fetched when the current fetch ends
  fetching = (async () => {
    let shown = null;
    while (lastBuild !== shown) {
      shown = lastBuild;
      const ids = new Set();
      for (const terrain of shown.terrains ?? []) {
        ids.add(terrain.id);
        viewport.show(terrain, await api.heights(terrain.id));
        // The bake of its first colour material, fetched only when it was baked anew.
        const wanted = terrain.texture;
        if (!wanted) viewport.paint(terrain.id, null);
        else if (viewport.textureVersion(terrain.id) !== wanted.version) viewport.paint(terrain.id, await api.texture(terrain.id));
      }
      viewport.forget(ids);
      drawOverlay();
      document.body.dataset.build = String(shown.version);
    }
  })().catch((error) => say(error.message)).finally(() => { fetching = null; });
}

function drawOverlay() {
  const overlay = $('#overlay');
  if (!state?.preferences.showOverlay || !lastBuild) { overlay.textContent = ''; return; }
  const lines = [];
  for (const t of lastBuild.terrains ?? []) {
    lines.push(`${t.name}: ${t.columns - 1} x ${t.rows - 1} segments, ${(t.columns * t.rows).toLocaleString()} samples, ${t.memory}`);
    for (const op of t.operators)
      lines.push(`  ${op.rebuilt ? 'rebuilt' : 'cached '} ${(op.seconds * 1000).toFixed(1).padStart(7)} ms  ${op.name}`);
    for (const m of t.materials ?? [])
      lines.push(`  ${m.baked ? 'baked  ' : 'cached '} ${(m.seconds * 1000).toFixed(1).padStart(7)} ms  ${m.name} (material, ${m.width} x ${m.height})`);
  }
  const bake = lastBuild.bakeSeconds ? `, bake ${(lastBuild.bakeSeconds * 1000).toFixed(1)} ms` : '';
  lines.push(`build ${(lastBuild.seconds * 1000).toFixed(1)} ms${bake}${lastBuild.error ? `: ${lastBuild.error}` : ''}`);
  overlay.textContent = lines.join('\n');
}

start().catch((error) => say(error.message));
