// Two fields for the size and the rate of a camera.

import {make} from './dom.js';
import {sizeText} from './words.js';

export class FormatChooser {
    #sizes = [];
    #known = '';  // the sizes and the format that the fields show
    #chosen = null;
    #size = make('select', {change: () => this.#changeSize()});
    #rate = make('select', {change: () => this.#change()});
    #onChange;

    // onChange({width, height, rate}) is called when the person has chosen.
    constructor(onChange) {
        this.#onChange = onChange;
        this.element = make(
            'div', {class: 'format'}, make('label', {}, 'Size ', this.#size),
            make('label', {}, 'Rate ', this.#rate));
    }

    // What the person chose, or null.
    get chosen() {
        return this.#chosen;
    }

    // `current` is the format in which the camera is open, or null.
    show(sizes, current) {
        const known = JSON.stringify([sizes, current, this.#chosen]);
        if (known === this.#known) {
            return;
        }
        this.#known = known;
        this.#sizes = sizes;
        const shown = current ?? this.#chosen;
        const names = sizes.map((size, i) => [i, sizeText(size)]);
        const index =
            shown ? sizes.findIndex(size => size.width === shown.width && size.height === shown.height) : -1;
        if (index < 0) {
            names.unshift(['', shown ? sizeText(shown) : 'automatic']);
        }
        fill(this.#size, names, index < 0 ? '' : index);
        this.#fillRates(shown?.rate);
    }

    #fillRates(wanted) {
        const rates = this.#sizes[this.#size.value]?.rates ?? (wanted ? [wanted] : []);
        const isNearer = (a, b) => Math.abs(a - wanted) - Math.abs(b - wanted);
        const nearest = wanted ? rates.toSorted(isNearer)[0] : rates[0];
        const names = rates.map(rate => [rate, `${rate} per second`]);
        fill(this.#rate, names.length === 0 ? [['', 'automatic']] : names, nearest ?? '');
        this.#rate.disabled = rates.length < 2;
    }

    #changeSize() {
        this.#fillRates(Number(this.#rate.value) || undefined);
        this.#change();
    }

    #change() {
        const size = this.#sizes[this.#size.value];
        this.#chosen = size ? {width: size.width, height: size.height, rate: Number(this.#rate.value)} : null;
        if (this.#chosen) {
            this.#onChange(this.#chosen);
        }
    }
}

// Each option is [value, text].
function fill(select, options, value) {
    select.replaceChildren(...options.map(([own, text]) => make('option', {value: own}, text)));
    select.value = String(value);
}
