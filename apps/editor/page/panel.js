// The attribute panel, generated from the node type's description: groups become folders,
// numbers with limits become sliders, choices drop-downs, buttons buttons. Edits of one
// parameter are coalesced: while one is on its way, only the newest value waits.
import GUI from '/page/lil-gui/lil-gui.esm.js';

const SLIDER_SPAN = 100000;  // wider ranges get a plain number field
const SHOWN_AS_TEXT = new Set(['curve', 'link', 'fieldlist', 'matrix']);

export class Panel {
  constructor(element, types, send) {
    this.element = element;
    this.types = types;
    this.send = send;  // (request) => Promise
    this.gui = null;
    this.node = null;
    this.controllers = new Map();  // parameter id -> { controller, values, key }
    this.waiting = new Map();       // parameter id -> newest unsent value
    this.sending = new Set();
  }

  show(values) {
    if (!values) { this.clear(); return; }
    if (this.node && this.node.id === values.id && this.node.type === values.type) { this.update(values); return; }
    this.clear();
    this.node = values;
    const type = this.types.nodeTypes[values.type];
    this.gui = new GUI({ container: this.element, title: values.name || type.name, width: 320 });
    const folders = new Map([[0, this.gui]]);
    for (const parameter of type.parameters) {
      const state = values.values[parameter.id];
      if (!state || state.visible === false) continue;
      const parent = folders.get(parameter.group) ?? this.gui;
      if (parameter.kind === 'group') { folders.set(parameter.id, parent.addFolder(parameter.label)); continue; }
      const controller = this.add(parent, parameter, state);
      if (!controller) continue;
      controller.domElement.title = parameter.help;
      if (!state.enabled || parameter.readOnly) controller.disable();
    }
  }

  add(parent, parameter, state) {
    const holder = { value: state.value };
    const key = 'value';
    const remember = (controller, shown = holder) => {
      this.controllers.set(parameter.id, { controller, holder: shown, parameter });
      return controller;
    };
    if (parameter.kind === 'button') {
      const press = { press: () => this.send({ action: 'button', node: this.node.id, parameter: parameter.id }) };
      return remember(parent.add(press, 'press').name(parameter.label), null);
    }
    let controller;
    switch (parameter.type) {
      case 'bool':
        controller = parent.add(holder, key);
        break;
      case 'int':
      case 'float':
        if (parameter.choices) {
          const options = Object.fromEntries(parameter.choices.map((c) => [c.name, c.name]));
          controller = parent.add(holder, key, options);
        } else {
          const slider = parameter.minimum !== undefined && parameter.maximum !== undefined &&
            parameter.maximum - parameter.minimum <= SLIDER_SPAN;
          controller = slider ? parent.add(holder, key, parameter.minimum, parameter.maximum) : parent.add(holder, key);
          if (parameter.type === 'int') controller.step(1);
          else if (slider) controller.step((parameter.maximum - parameter.minimum) / 1000);
        }
        break;
      case 'string':
        controller = parent.add(holder, key);
        break;
      case 'vector': {
        const folder = parent.addFolder(parameter.label);
        const xyz = { x: state.value?.[0] ?? 0, y: state.value?.[1] ?? 0, z: state.value?.[2] ?? 0 };
        for (const axis of ['x', 'y', 'z'])
          folder.add(xyz, axis).onChange(() => this.edit(parameter, [xyz.x, xyz.y, xyz.z]));
        this.controllers.set(parameter.id, { folder, xyz, parameter });
        return null;
      }
      default: {
        // Curves, links and field lists: shown, edited by later tools of this panel.
        const text = { value: describe(parameter, state.value) };
        controller = parent.add(text, 'value').disable();
        controller.name(parameter.label);
        return remember(controller, text);
      }
    }
    controller.name(parameter.label + (parameter.unit && parameter.unit !== '%' ? ` (${parameter.unit})` : ''));
    controller.onChange((value) => this.edit(parameter, value));
    return remember(controller);
  }

  edit(parameter, value) {
    this.waiting.set(parameter.id, value);
    if (!this.sending.has(parameter.id)) this.flush(parameter);
  }

  async flush(parameter) {
    this.sending.add(parameter.id);
    while (this.waiting.has(parameter.id)) {
      const value = this.waiting.get(parameter.id);
      this.waiting.delete(parameter.id);
      await this.send({ action: 'set', node: this.node.id, parameter: parameter.id, value }).catch(() => {});
    }
    this.sending.delete(parameter.id);
  }

  // New values and enabled states in place, so that a slider being dragged stays put.
  update(values) {
    this.node = values;
    for (const [id, entry] of this.controllers) {
      const state = values.values[id];
      if (!state) continue;
      if (entry.controller) {
        if (entry.holder && !this.sending.has(id)) {
          entry.holder.value = SHOWN_AS_TEXT.has(entry.parameter.type) ? describe(entry.parameter, state.value) : state.value;
          entry.controller.updateDisplay();
        }
        entry.controller.enable(state.enabled && !entry.parameter.readOnly);
      } else if (entry.xyz && !this.sending.has(id) && Array.isArray(state.value)) {
        [entry.xyz.x, entry.xyz.y, entry.xyz.z] = state.value;
        entry.folder.controllersRecursive().forEach((c) => c.updateDisplay());
      }
    }
  }

  clear() {
    this.gui?.destroy();
    this.gui = null;
    this.node = null;
    this.controllers.clear();
  }
}

function describe(parameter, value) {
  if (parameter.type === 'curve') return value?.knots ? `${value.knots.length} knots` : (value?.preset ?? 'curve');
  if (parameter.type === 'link') return value == null ? '(none)' : `node ${value}`;
  if (parameter.type === 'fieldlist') return 'fields';
  return String(value ?? '');
}
