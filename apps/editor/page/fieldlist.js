// The field list editor: one row per layer (its field object, dropped from the tree, its
// opacity, blend and switch); a field dropped on the list adds a layer.
const BLENDS = ['NORMAL', 'ADD', 'MULTIPLY', 'MAX', 'MIN'];

// Makes an element take nodes dragged from the tree: `take(id)`.
export function dropTarget(element, take) {
  element.addEventListener('dragover', (event) => {
    if (!event.dataTransfer.types.includes('text/vellgrund-node')) return;
    event.preventDefault();
    element.classList.add('drop-into');
  });
  element.addEventListener('dragleave', () => element.classList.remove('drop-into'));
  element.addEventListener('drop', (event) => {
    event.preventDefault();
    event.stopPropagation();
    element.classList.remove('drop-into');
    take(Number(event.dataTransfer.getData('text/vellgrund-node')));
  });
}

export class FieldListEditor {
  constructor(container, nameOf, change) {
    this.nameOf = nameOf;
    this.change = change;  // ({ layers }) => void
    this.layers = [];
    this.element = document.createElement('div');
    this.element.className = 'fieldlist';
    container.append(this.element);
    dropTarget(this.element, (id) => {
      this.layers.push({ field: id, opacity: 1, blend: 'NORMAL', enabled: true });
      this.commit();
    });
  }

  set(value) {
    if (this.element.contains(document.activeElement)) return;  // the user is typing in it
    this.layers = (value?.layers ?? []).map((layer) => ({ ...layer }));
    this.render();
  }

  commit() {
    this.render();
    this.change({ layers: this.layers });
  }

  render() {
    const rows = this.layers.map((layer, index) => {
      const row = document.createElement('div');
      row.className = 'layer';
      const field = document.createElement('span');
      field.className = 'field';
      field.textContent = layer.field == null ? '(drop a field)' : (this.nameOf(layer.field)?.name ?? `object ${layer.field}`);
      dropTarget(field, (id) => { layer.field = id; this.commit(); });
      const opacity = document.createElement('input');
      Object.assign(opacity, { type: 'range', min: 0, max: 1, step: 0.01, value: layer.opacity, title: 'Opacity' });
      opacity.addEventListener('input', () => { layer.opacity = Number(opacity.value); this.change({ layers: this.layers }); });
      const blend = document.createElement('select');
      blend.append(...BLENDS.map((name) => new Option(name, name, false, name === layer.blend)));
      blend.addEventListener('change', () => { layer.blend = blend.value; this.commit(); });
      const enabled = document.createElement('input');
      Object.assign(enabled, { type: 'checkbox', checked: layer.enabled, title: 'Enabled' });
      enabled.addEventListener('change', () => { layer.enabled = enabled.checked; this.commit(); });
      const remove = document.createElement('button');
      remove.textContent = '×';
      remove.title = 'Remove the layer';
      remove.addEventListener('click', () => { this.layers.splice(index, 1); this.commit(); });
      row.append(enabled, field, opacity, blend, remove);
      return row;
    });
    const hint = document.createElement('div');
    hint.className = 'hint';
    hint.textContent = 'Drop field objects here to add layers.';
    this.element.replaceChildren(...rows, hint);
  }
}
