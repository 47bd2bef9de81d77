// The object tree: the document's nodes with their icons, then its materials with their
// shaders; selection in the order of the clicks, drag and drop to reorder and reparent,
// enable toggles and rename.
// The icon sheets' sizes, known once loadSheets has run.
const sheets = new Map();

export async function loadSheets(names) {
  await Promise.all([...names].map((name) => new Promise((resolve) => {
    const image = new Image();
    image.onload = () => { sheets.set(name, [image.naturalWidth, image.naturalHeight]); resolve(); };
    image.onerror = resolve;
    image.src = `/page/${name}`;
  })));
}

// A 64-pixel cell of a sheet, scaled to `size` pixels, as CSS.
export function iconStyle(icon, size = 20) {
  if (!icon) return '';
  const sheet = icon.sheet.replace(/\.[^.]+$/, '.png');
  const [width, height] = sheets.get(sheet) ?? [64, 64];
  const scale = size / 64;
  return `background-image:url(/page/${sheet});background-position:${-icon.x * scale}px ${-icon.y * scale}px;` +
    `background-size:${width * scale}px ${height * scale}px`;
}

export class Tree {
  constructor(element, types, actions) {
    this.element = element;
    this.types = types;
    this.actions = actions;  // select(ids), move(id, parent, before, mask), enable(id, on), rename(id, name)
    this.selection = [];
    this.dragging = null;  // the node being dragged, whose kind decides where it may drop
  }

  kindOf(node) {
    if (node.type === 'Mmaterial') return 'material';
    return this.types.shading?.some((entry) => entry.type === node.type) ? 'shader' : 'object';
  }

  render(state) {
    this.selection = state.selection;
    this.element.replaceChildren();
    const add = (nodes, depth, parent) => {
      for (const node of nodes) {
        const kind = this.kindOf(node);
        const row = document.createElement('div');
        row.className = 'row' + (state.selection.includes(node.id) ? ' selected' : '') + (node.enabled ? '' : ' disabled');
        row.style.paddingLeft = `${4 + depth * 14}px`;
        row.dataset.id = node.id;
        row.dataset.kind = kind;
        row.draggable = true;
        const type = this.types.nodeTypes[node.type];
        const icon = document.createElement('span');
        // Types without a cell of the sheets get a drawn glyph of their kind.
        icon.className = type?.icon ? 'icon' : `icon ${kind}`;
        icon.style.cssText = iconStyle(type?.icon);
        const name = document.createElement('span');
        name.className = 'name';
        const label = node.name && node.name !== node.type ? node.name : (type?.name || node.type);
        name.textContent = label + (node.mask ? ' (mask)' : '');
        name.title = type?.name ?? node.type;
        const toggle = document.createElement('input');
        toggle.type = 'checkbox';
        toggle.checked = node.enabled;
        toggle.title = 'Enabled';
        toggle.addEventListener('click', (event) => { event.stopPropagation(); this.actions.enable(node.id, toggle.checked); });
        row.append(icon, name, toggle);
        row.addEventListener('click', (event) => this.click(node.id, event));
        name.addEventListener('dblclick', () => this.rename(node, name));
        this.dragAndDrop(row, node, kind);
        this.element.append(row);
        add(node.children, depth + 1, node);
      }
    };
    add(state.tree, 0, null);
    // The materials after the objects; a material dropped on the heading goes last.
    const heading = document.createElement('div');
    heading.className = 'heading';
    heading.textContent = 'Materials';
    heading.addEventListener('dragover', (event) => { if (this.dragging?.kind === 'material') event.preventDefault(); });
    heading.addEventListener('drop', (event) => {
      event.preventDefault();
      if (this.dragging?.kind === 'material') this.actions.move(this.dragging.id, null, null);
    });
    this.element.append(heading);
    add(state.materials ?? [], 0, null);
  }

  click(id, event) {
    let ids;
    if (event.ctrlKey || event.metaKey)
      ids = this.selection.includes(id) ? this.selection.filter((s) => s !== id) : [...this.selection, id];
    else if (event.shiftKey)
      ids = this.selection.includes(id) ? this.selection : [...this.selection, id];
    else
      ids = [id];
    this.actions.select(ids);
  }

  rename(node, label) {
    const input = document.createElement('input');
    input.value = node.name;
    label.replaceWith(input);
    input.focus();
    input.select();
    const done = (keep) => { if (keep && input.value !== node.name) this.actions.rename(node.id, input.value); else input.replaceWith(label); };
    input.addEventListener('keydown', (event) => {
      event.stopPropagation();
      if (event.key === 'Enter') done(true);
      if (event.key === 'Escape') done(false);
    });
    input.addEventListener('blur', () => done(true));
  }

  // Dropping on the upper quarter of a row places before it, elsewhere inside it; a material
  // only goes before another, and a shader dropped into a shader with Alt held becomes its
  // mask rather than an input.
  dragAndDrop(row, node, kind) {
    row.addEventListener('dragstart', (event) => {
      this.dragging = { id: node.id, kind };
      event.dataTransfer.setData('text/vellgrund-node', String(node.id));
    });
    row.addEventListener('dragend', () => { this.dragging = null; });
    const where = (event) => (event.offsetY < row.clientHeight / 4 || (kind === 'material' && this.dragging?.kind === 'material')
      ? 'before' : 'into');
    row.addEventListener('dragover', (event) => {
      if (!event.dataTransfer.types.includes('text/vellgrund-node')) return;
      event.preventDefault();
      row.classList.toggle('drop-before', where(event) === 'before');
      row.classList.toggle('drop-into', where(event) === 'into');
    });
    row.addEventListener('dragleave', () => row.classList.remove('drop-before', 'drop-into'));
    row.addEventListener('drop', (event) => {
      event.preventDefault();
      row.classList.remove('drop-before', 'drop-into');
      const moved = Number(event.dataTransfer.getData('text/vellgrund-node'));
      if (moved === node.id) return;
      if (where(event) === 'before') this.actions.move(moved, null, node.id);
      else this.actions.move(moved, node.id, null, event.altKey && kind === 'shader');
    });
  }
}
