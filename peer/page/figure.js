// One figure of a camera: its name, its value, and the last minute as a small graph.

import {make, makeSvg, setText} from './dom.js';

const width = 120;
const height = 28;
const points = 60;

export class Figure {
    #value = make('span', {class: 'value'}, '–');
    #summary = make('span', {class: 'for-readers'});
    #line = makeSvg('polyline', {class: 'line'});
    #area = makeSvg('polygon', {class: 'area'});
    #format;

    // format(number) returns a text. `explanation` says how the figure is measured.
    constructor(name, format, explanation) {
        this.#format = format;
        const graph = makeSvg(
            'svg', {viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: 'none', 'aria-hidden': 'true'},
            this.#area, this.#line);
        this.element = make(
            'div', {class: 'figure', title: explanation}, make('dt', {}, name),
            make('dd', {}, this.#value, this.#summary, graph));
    }

    // `series` has one number or null per second; `shown` is the value if it is not the newest of them.
    show(series, shown = series.at(-1)) {
        setText(this.#value, shown === null || shown === undefined ? '–' : this.#format(shown));
        const known = series.filter(value => value !== null);
        const greatest = Math.max(...known, 0);
        const range = () => `${this.#format(Math.min(...known))} to ${this.#format(greatest)}`;
        setText(this.#summary, known.length === 0 ? '' : `; in the last minute from ${range()}`);
        const scale = (height - 3) / (greatest || 1);
        const step = width / (points - 1);
        const first = points - series.length;
        const point = (i, y) => `${((first + i) * step).toFixed(1)},${y.toFixed(1)}`;
        const line = series.map((value, i) => point(i, height - 1.5 - (value ?? 0) * scale)).join(' ');
        this.#line.setAttribute('points', line);
        this.#area.setAttribute('points', `${point(0, height)} ${line} ${width},${height}`);
    }
}
