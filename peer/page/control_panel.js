// Sliders for the controls of a camera.

import {make, newId, setText} from './dom.js';

const settleMs = 1500;  // after a change the peer's state may still be the old one

export class ControlPanel {
    #rows = new Map();  // name -> row
    #none = make('p', {class: 'quiet'}, 'This camera has no controls that can be changed.');
    #list = make('div', {class: 'controls'});
    #reset = make('button', {type: 'button', click: () => this.#toDefaults()}, 'Default values');
    #send;

    // send({name, value} or {name, automatic}) returns a promise.
    constructor(send) {
        this.#send = send;
        this.element = make('div', {}, this.#none, this.#list, this.#reset);
    }

    show(controls) {
        const shown = controls ?? [];
        this.#none.hidden = shown.length > 0;
        this.#reset.hidden = shown.length === 0;
        setText(
            this.#none,
            controls ? 'This camera has no controls that can be changed.' :
                       'The controls appear once the camera is open.');
        const names = new Set(shown.map(control => control.name));
        for (const [name, row] of this.#rows) {
            if (!names.has(name)) {
                row.element.remove();
                this.#rows.delete(name);
            }
        }
        for (const control of shown) {
            let row = this.#rows.get(control.name);
            if (!row) {
                row = new Row(control, this.#send);
                this.#rows.set(control.name, row);
                this.#list.append(row.element);
            }
            row.show(control);
        }
    }

    #toDefaults() {
        for (const row of this.#rows.values()) {
            row.toDefault();
        }
    }
}

// One control. At most one request is under way; of the values that were set meanwhile only the newest is
// sent.
class Row {
    #control;
    #send;
    #next = null;
    #isSending = false;
    #changedAt = -Infinity;
    #slider;
    #automatic = null;
    #output = make('output');

    constructor(control, send) {
        this.#control = control;
        this.#send = send;
        const id = newId();
        this.#slider = make('input', {type: 'range', id, input: () => this.#slide()});
        this.#output.htmlFor = id;
        const label = make('label', {}, readable(control.name));
        label.htmlFor = id;
        this.element = make('div', {class: 'control'}, label, this.#slider, this.#output);
        if (control.automatic !== null && control.automatic !== undefined) {
            const name = `${readable(control.name)} automatic`;
            this.#automatic =
                make('input', {type: 'checkbox', 'aria-label': name, change: () => this.#setAutomatic()});
            this.element.append(make('label', {class: 'automatic'}, this.#automatic, ' automatic'));
        }
    }

    show(control) {
        this.#control = control;
        if (this.#isSending || performance.now() - this.#changedAt < settleMs) {
            return;
        }
        Object.assign(this.#slider, {min: control.minimum, max: control.maximum, step: control.step || 1});
        this.#slider.value = control.value;
        this.#showState(control.value, control.automatic === true);
    }

    toDefault() {
        this.#slider.value = this.#control.default;
        this.#slide();
    }

    #showState(value, isAutomatic) {
        setText(this.#output, isAutomatic ? 'automatic' : String(value));
        if (this.#automatic) {
            this.#automatic.checked = isAutomatic;
        }
    }

    #slide() {
        const value = Number(this.#slider.value);
        this.#showState(value, false);
        this.#request({name: this.#control.name, value});
    }

    #setAutomatic() {
        const automatic = this.#automatic.checked;
        this.#showState(Number(this.#slider.value), automatic);
        this.#request({name: this.#control.name, automatic});
    }

    async #request(change) {
        this.#changedAt = performance.now();
        this.#next = change;
        if (this.#isSending) {
            return;
        }
        this.#isSending = true;
        while (this.#next) {
            const now = this.#next;
            this.#next = null;
            if (!await this.#send(now)) {
                this.#changedAt = -Infinity;  // shows the peer's value again
            }
        }
        this.#isSending = false;
    }
}

// white_balance_temperature: White balance temperature
function readable(name) {
    const text = name.replaceAll('_', ' ');
    return text.charAt(0).toUpperCase() + text.slice(1);
}
