// Measures the live page with one virtual camera: the time from the command to the first picture, and from
// the time in a picture until it is on the canvas. `node tests/view/measure.mjs [SECONDS]`, after `npm ci
// --prefix tests/view`.

import {readFileSync} from 'node:fs';

import {launch, open, readStamp, showsMovingPictures, tile, toggle, until} from './browser.mjs';
import {Chain} from './chain.mjs';

const seconds = Number(process.argv[2] ?? 20);

// In the page: notes when each picture was drawn. The first `readStamp` is a function of this program.
const noteDraws = `
globalThis.draws = [];
{
    const readStamp = ${readStamp};
    const {drawImage} = CanvasRenderingContext2D.prototype;
    CanvasRenderingContext2D.prototype.drawImage = function(...words) {
        drawImage.apply(this, words);
        const drawnMs = performance.timeOrigin + performance.now();
        const stamp = this.canvas.isConnected && words[0] instanceof VideoFrame ? readStamp(this.canvas) : null;
        if (stamp) {
            draws.push({...stamp, drawnMs});
        }
    };
}`;

const percentile = (sorted, share) => sorted[Math.min(Math.floor(share * sorted.length), sorted.length - 1)];

const chain = new Chain(['card=Front,formats=NV12,sizes=1280x720,fps=30']);
const browser = await launch();
try {
    await chain.startHost();
    const began = Date.now();
    await chain.startPeer();
    const served = Date.now();
    const page = await open(browser, chain.address, {init: noteDraws});
    await toggle(page, 'Front').click();
    const first = await until(() => page.evaluate(() => draws[0]), 'a picture');
    await showsMovingPictures(tile(page, 'Front'), 1280, 720);
    await page.evaluate(() => draws.length = 0);
    await new Promise(resolve => setTimeout(resolve, 1000 * seconds));
    const draws = await page.evaluate(() => draws);
    const monotonicMs = Number(process.hrtime.bigint() / 1000n) / 1000 - Date.now();
    const latencies =
        draws.map(({drawnMs, timeUs}) => drawnMs + monotonicMs - timeUs / 1000).sort((a, b) => a - b);
    const load = readFileSync('/proc/loadavg', 'utf8').split(' ')[0];
    console.log(`load average                 ${load}`);
    console.log(`command to address           ${served - began} ms`);
    console.log(`command to first picture     ${Math.round(first.drawnMs - began)} ms`);
    console.log(`pictures drawn               ${draws.length} in ${seconds} s`);
    console.log(`painted to drawn, median     ${percentile(latencies, 0.5).toFixed(1)} ms`);
    console.log(`painted to drawn, 99 %       ${percentile(latencies, 0.99).toFixed(1)} ms`);
} finally {
    await browser.close();
    await chain.stop();
}
