// A Chromium for the tests of the page, and what they ask of it.

import {readFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {chromium} from 'playwright-core';

export const patience = 30_000;  // for every condition: the machine may be slow

const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

export function launch() {
    return chromium.launch({executablePath: '/usr/bin/chromium', args: ['--disable-gpu']});
}

// Opens an address in a new window. `errors` of the result has what the console says of errors.
export async function open(browser, address, {init, ...options} = {}) {
    const context = await browser.newContext({viewport: {width: 1200, height: 900}, ...options});
    context.setDefaultTimeout(patience);
    const page = await context.newPage();
    page.errors = [];
    page.on('console', message => {
        if (message.type() === 'error' || message.type() === 'warning') {
            page.errors.push(message.text());
        }
    });
    page.on('pageerror', error => page.errors.push(String(error)));
    page.on('dialog', dialog => {
        page.errors.push(`dialog ${dialog.message()}`);
        dialog.dismiss();
    });
    if (init) {
        await page.addInitScript(init);
    }
    await page.goto(address);
    return page;
}

// The parts of the page that belong to a camera.
export const toggle = (page, name) => page.locator('.toggle').filter({hasText: name});
export const tile = (page, name) => page.locator('.tile').filter({has: page.locator('h3', {hasText: name})});

// Waits until a condition, which may be asynchronous, is true or returns something.
export async function until(condition, what) {
    const end = Date.now() + patience;
    for (;;) {
        const value = await condition();
        if (value) {
            return value;
        }
        if (Date.now() > end) {
            throw new Error(`not within ${patience / 1000} s: ${what}`);
        }
        await new Promise(resolve => setTimeout(resolve, 50));
    }
}

// Waits until a camera is in this state, which is a word.
export function isIn(page, name, state) {
    return until(
        async () => await tile(page, name).locator('.head .state').textContent() === state,
        `${name}: ${state}`);
}

// What axe-core complains about, as texts.
export async function complaints(page) {
    // By the debugger, because the policy of the page allows no other script.
    await page.evaluate(axe);
    const {violations} = await page.evaluate(() => globalThis.axe.run());
    return violations.map(
        ({id, impact, nodes}) => `${impact}: ${id}: ${nodes.map(node => node.html).join(' ')}`);
}

// Reads the counter and the time that a virtual camera draws into its pictures (common/picture_stamp.h). Runs
// in the page. Returns {counter, timeUs, width, height}, or null if there is no stamp.
export function readStamp(canvas) {
    const {width, height} = canvas;
    const bitCount = 4 + 32 + 48 + 16;
    const grid = [[32, 3], [16, 3], [8, 3], [8, 6], [8, 8], [4, 12]]
                     .map(([block, twelfths]) => {
                         const columns = Math.floor(width / block);
                         const rows = Math.ceil(bitCount / columns);
                         return {block, columns, rows, fits: rows * block * 12 <= height * twelfths};
                     })
                     .find(each => each.fits);
    if (!grid) {
        return null;
    }
    const {block, columns, rows} = grid;
    // A copy, because the browser warns of a canvas that is read often.
    const copy = new OffscreenCanvas(width, rows * block).getContext('2d', {willReadFrequently: true});
    copy.drawImage(canvas, 0, 0);
    const {data} = copy.getImageData(0, 0, width, rows * block);
    // Compression blurs a block's edges: only its middle is read.
    const level = bit => {
        const left = bit % columns * block + block / 4;
        const top = Math.floor(bit / columns) * block + block / 4;
        let sum = 0;
        for (let y = top; y < top + block / 2; ++y) {
            for (let x = left; x < left + block / 2; ++x) {
                sum += data[4 * (y * width + x) + 1];
            }
        }
        return sum / (block / 2) ** 2;
    };
    const levels = Array.from({length: bitCount}, (_, bit) => level(bit));
    const bits = levels.map(each => each > (levels[0] + levels[1]) / 2 ? 1 : 0);
    const number = (from, count) => bits.slice(from, from + count).reduce((sum, bit) => 2 * sum + bit, 0);
    const counter = number(4, 32);
    const timeUs = number(36, 48);
    let check = 0xffff;
    for (const [value, bytes] of [[counter, 4], [timeUs, 6]]) {
        for (let i = 0; i < bytes; ++i) {
            check ^= Math.floor(value / 256 ** i) % 256 << 8;
            for (let bit = 0; bit < 8; ++bit) {
                check = (check & 0x8000 ? check << 1 ^ 0x1021 : check << 1) & 0xffff;
            }
        }
    }
    const isStamp = levels[0] >= levels[1] + 32 && number(0, 4) === 0b1011 && number(84, 16) === check;
    return isStamp ? {counter, timeUs, width, height} : null;
}

// The stamp on the canvas of a tile.
export const stamp = tile => tile.locator('canvas').evaluate(readStamp);

// Waits until the tile shows two stamps of one stream in this size, the later one with the greater counter.
export async function showsMovingPictures(tile, width, height) {
    let before = null;
    await until(async () => {
        const now = await stamp(tile);
        const isSize = now?.width === width && now.height === height;
        const hasMoved = isSize && before !== null && now.counter > before.counter;
        before = isSize ? now : null;
        return hasMoved;
    }, `moving pictures of ${width}x${height}`);
}
