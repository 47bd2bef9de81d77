// The attribute panel, generated from the node type's description: groups become folders,
// numbers with limits become sliders, choices drop-downs, buttons buttons. Edits of one
// parameter are coalesced: while one is on its way, only the newest value waits.
import GUI from '/page/lil-gui/lil-gui.esm.js';
import { CurveEditor } from '/page/curve.js';
import { FieldListEditor, dropTarget } from '/page/fieldlist.js';
import { MaterialListEditor } from '/page/materiallist.js';
import { iconStyle } from '/page/tree.js';

const SLIDER_SPAN = 100000;  // wider ranges get a plain number field
const SHOWN_AS_TEXT = new Set(['link', 'matrix']);

export class Panel {
  constructor(element, types, send, nameOf) {
    this.element = element;
    this.types = types;
    this.send = send;  // (request) => Promise
    this.nameOf = nameOf;  // (node id) => { name, type } of a node of the tree
    this.gui = null;
    this.node = null;
    this.controllers = new Map();  // parameter id -> { controller, values, key }
    this.waiting = new Map();       // parameter id -> newest unsent value
    this.sending = new Set();
  }

  show(values) {
    if (!values) { this.clear(); return; }
    // Parameters that a change showed or hid need a new panel; otherwise values update in place.
    const shown = Object.entries(values.values).filter(([, state]) => state.visible !== false).map(([id]) => id).join();
    if (this.node && this.node.id === values.id && this.node.type === values.type && this.shown === shown) {
      this.update(values);
      return;
    }
    const scroll = this.element.scrollTop;
    this.clear();
    this.node = values;
    this.shown = shown;
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
    if (values.materials) {
      // A terrain's materials, beside its parameters.
      const folder = this.gui.addFolder('Materials');
      this.materials = new MaterialListEditor(folder.$children, this.nameOf,
        (ids) => this.send({ action: 'materials', node: this.node.id, nodes: ids }).catch(() => {}));
      this.materials.set(values.materials);
    }
    this.element.scrollTop = scroll;
  }

  add(parent, parameter, state) {
    // A parameter without a stored value (a switch that is off until set) shows its type's
    // empty value: lil-gui cannot make a control for undefined.
    const empty = { bool: false, int: parameter.minimum ?? 0, float: parameter.minimum ?? 0, string: '' }[parameter.type];
    const holder = { value: state.value ?? empty };
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
          if (parameter.choices.some((c) => c.icon)) withIcon(controller, parameter.choices);
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
      case 'curve': {
        const folder = parent.addFolder(parameter.label);
        const curve = new CurveEditor(folder.$children, this.types.curvePresets ?? [], (value) => this.edit(parameter, value));
        curve.set(state.value);
        this.controllers.set(parameter.id, { curve, parameter });
        return null;
      }
      case 'fieldlist': {
        const folder = parent.addFolder(parameter.label);
        const list = new FieldListEditor(folder.$children, this.nameOf, (value) => this.edit(parameter, value));
        list.set(state.value);
        this.controllers.set(parameter.id, { list, parameter });
        return null;
      }
      default: {
        // Links take an object dropped from the tree; matrices are shown.
        const text = { value: this.describe(parameter, state.value) };
        controller = parent.add(text, 'value');
        controller.name(parameter.label);
        controller.$input.readOnly = true;
        if (parameter.type === 'link') {
          dropTarget(controller.domElement, (id) => this.edit(parameter, id));
          controller.$input.title = 'Drop an object from the tree here; Delete clears it';
          controller.$input.addEventListener('keydown', (event) => {
            if (event.key === 'Delete' || event.key === 'Backspace') { event.stopPropagation(); this.edit(parameter, null); }
          });
        }
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
    this.materials?.set(values.materials);
    for (const [id, entry] of this.controllers) {
      const state = values.values[id];
      if (!state) continue;
      if (entry.controller) {
        if (entry.holder && !this.sending.has(id)) {
          entry.holder.value = SHOWN_AS_TEXT.has(entry.parameter.type) ? this.describe(entry.parameter, state.value) : state.value;
          entry.controller.updateDisplay();
        }
        entry.controller.enable(state.enabled && !entry.parameter.readOnly);
      } else if ((entry.curve || entry.list) && !this.sending.has(id)) {
        (entry.curve ?? entry.list).set(state.value);
      } else if (entry.xyz && !this.sending.has(id) && Array.isArray(state.value)) {
        [entry.xyz.x, entry.xyz.y, entry.xyz.z] = state.value;
        entry.folder.controllersRecursive().forEach((c) => c.updateDisplay());
      }
    }
  }

  describe(parameter, value) {
    if (parameter.type === 'link') return value == null ? '(none)' : (this.nameOf(value)?.name ?? `object ${value}`);
    if (parameter.type === 'matrix') return 'matrix';
    return String(value ?? '');
  }

  clear() {
    this.gui?.destroy();
    this.gui = null;
    this.node = null;
    this.materials = null;
    this.controllers.clear();
  }
}

// A drop-down of a choice with the icon of the chosen member beside it.
function withIcon(controller, choices) {
  const icon = document.createElement('span');
  icon.className = 'icon';
  controller.$widget.prepend(icon);
  const show = () => { icon.style.cssText = iconStyle(choices.find((c) => c.name === controller.getValue())?.icon); };
  const update = controller.updateDisplay.bind(controller);
  controller.updateDisplay = () => { update(); show(); return controller; };
  show();
}
