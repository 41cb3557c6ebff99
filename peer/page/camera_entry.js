// A camera in the list: its name, its sizes, and the button that shows it.

import {make, setText} from './dom.js';
import {FormatChooser} from './format_chooser.js';
import {describe, sizeText} from './words.js';

export class CameraEntry {
    #name = make('span', {class: 'name'});
    #detail = make('p', {class: 'quiet'});
    #key = make('kbd', {'aria-hidden': 'true'});
    #button;
    #format;

    // onToggle() shows or hides the camera.
    constructor(onToggle) {
        this.#button = make(
            'button', {type: 'button', class: 'toggle', 'aria-pressed': 'false', click: onToggle}, this.#name,
            this.#key);
        this.#format = new FormatChooser(() => {});
        this.element = make('li', {class: 'entry'}, this.#button, this.#detail, this.#format.element);
    }

    // The format that was chosen for opening the camera, or null.
    get format() {
        return this.#format.chosen;
    }

    focus() {
        this.#button.focus();
    }

    show(camera, isShown, number) {
        setText(this.#name, camera.name);
        setText(this.#key, number <= 9 ? String(number) : '');
        this.#button.setAttribute('aria-pressed', String(isShown));
        if (number <= 9) {
            this.#button.setAttribute('aria-keyshortcuts', String(number));
        }
        const words = [];
        if (camera.state !== 'idle' && !isShown) {
            words.push(describe(camera.state).title);
        }
        if (camera.size && !isShown) {
            words.push(`${sizeText(camera.size)}, ${camera.size.rate} per second`);
        } else if (!isShown) {
            words.push(
                camera.sizes.length === 1 ? sizeText(camera.sizes[0]) : `${camera.sizes.length} sizes`);
        }
        if (camera.viewers > (isShown ? 1 : 0)) {
            words.push(camera.viewers === 1 ? '1 viewer' : `${camera.viewers} viewers`);
        }
        if (camera.recording) {
            words.push('recording');
        }
        setText(this.#detail, words.join(' · '));
        this.#detail.hidden = words.length === 0;
        this.#format.show(camera.sizes, camera.size);
        this.#format.element.hidden = isShown || camera.size !== null || camera.sizes.length === 0;
    }
}
