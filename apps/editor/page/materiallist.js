// The materials a terrain wears, in order: a material dropped from the tree is added, the
// arrows reorder, × removes. Every change sends the whole list, one undo step.
import { dropTarget } from '/page/fieldlist.js';

export class MaterialListEditor {
  constructor(container, nameOf, change) {
    this.nameOf = nameOf;
    this.change = change;  // (ids) => void
    this.ids = [];
    this.element = document.createElement('div');
    this.element.className = 'materials';
    container.append(this.element);
    dropTarget(this.element, (id) => {
      if (!this.ids.includes(id)) this.commit([...this.ids, id]);
    });
  }

  set(materials) {
    this.ids = (materials ?? []).map((material) => material.id);
    this.names = new Map((materials ?? []).map((material) => [material.id, material.name]));
    this.render();
  }

  commit(ids) {
    this.ids = ids;
    this.render();
    this.change(ids);
  }

  render() {
    const button = (text, title, action, enabled = true) => {
      const element = document.createElement('button');
      Object.assign(element, { textContent: text, title, disabled: !enabled });
      element.addEventListener('click', action);
      return element;
    };
    const rows = this.ids.map((id, index) => {
      const row = document.createElement('div');
      row.className = 'material';
      const name = document.createElement('span');
      name.className = 'name';
      name.textContent = this.nameOf(id)?.name || this.names?.get(id) || `material ${id}`;
      const swap = (other) => {
        const ids = [...this.ids];
        [ids[index], ids[other]] = [ids[other], ids[index]];
        this.commit(ids);
      };
      row.append(name,
        button('↑', 'Earlier: the first colour material textures the mesh', () => swap(index - 1), index > 0),
        button('↓', 'Later', () => swap(index + 1), index + 1 < this.ids.length),
        button('×', 'Take the material off', () => this.commit(this.ids.filter((other) => other !== id))));
      return row;
    });
    const hint = document.createElement('div');
    hint.className = 'hint';
    hint.textContent = 'Drop materials from the tree here.';
    this.element.replaceChildren(...rows, hint);
  }
}
