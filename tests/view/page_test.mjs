// The page with a peer that shows what no real one does: hostile names, every state, a stream that is
// malformed.

import assert from 'node:assert/strict';
import {readFile} from 'node:fs/promises';
import {after, afterEach, before, beforeEach, describe, it} from 'node:test';

import {complaints, isIn, launch, open, tile, toggle, until} from './browser.mjs';
import {camera, encodePictures, FakePeer, pictureRecord, stateRecord} from './fake_peer.mjs';

const hostileName = '<img src=x onerror=alert(1)>"\'&amp;<script>alert(2)</script>';
const controls = [
    {name: 'brightness', minimum: 0, maximum: 255, step: 1, value: 128, default: 100, automatic: null},
    {name: 'focus', minimum: 0, maximum: 100, step: 5, value: 40, default: 50, automatic: true},
];

// Counts decoders, and what each gets.
function countDecoders() {
    globalThis.decoders = [];
    globalThis.VideoDecoder = class extends VideoDecoder {
        #chunks = [];
        constructor(init) {
            super(init);
            globalThis.decoders.push(this.#chunks);
        }
        decode(chunk) {
            this.#chunks.push(chunk.type);
            super.decode(chunk);
        }
    };
}

// Decoders that never return a picture.
function stopDecoders() {
    globalThis.decoders = [];
    globalThis.VideoDecoder = class {
        static isConfigSupported() {
            return Promise.resolve({supported: true});
        }
        state = 'unconfigured';
        #chunks = [];
        constructor() {
            globalThis.decoders.push(this.#chunks);
        }
        configure() {
            this.state = 'configured';
        }
        decode(chunk) {
            this.#chunks.push(chunk.type);
        }
        close() {
            this.state = 'closed';
        }
    };
}

describe('the page', () => {
    let browser;
    let pictures;
    let peer;
    let page;

    before(async () => {
        browser = await launch();
        pictures = encodePictures(640, 360, 30);
    });
    after(() => browser.close());
    beforeEach(async () => {
        peer = new FakePeer();
        peer.state.cameras = [camera(0, 'Front', {controls: structuredClone(controls)}), camera(1, 'Door')];
        peer.answerVideo = sendPictures;
        await peer.start();
    });
    afterEach(async () => {
        await page.context().close();
        await peer.stop();
    });

    // Answers a request for video with pictures at their rate.
    function sendPictures({cameras, response}) {
        let next = 0;
        response.writeHead(200);
        const timer = setInterval(() => {
            cameras.forEach((_, index) => response.write(pictureRecord(pictures[next], {index})));
            next = (next + 1) % pictures.length;
        }, 33);
        response.on('close', () => clearInterval(timer));
    }

    async function openAndShow(name = 'Front', options = {}) {
        page = await open(browser, peer.address, options);
        await toggle(page, name).click();
    }

    it('shows several cameras in one stream', async () => {
        await openAndShow();
        await isIn(page, 'Front', 'Live');
        await toggle(page, 'Door').click();
        await isIn(page, 'Door', 'Live');
        const requested = () => JSON.stringify(peer.videos.map(video => video.cameras));
        await until(() => requested() === '[[0,1]]', 'one stream of both');
        await toggle(page, 'Front').click();
        await until(() => requested() === '[[1]]', 'one stream of one');
        await isIn(page, 'Door', 'Live');
        assert.deepEqual(page.errors, []);
    });

    it('goes on with a camera that it shows when another one is added', async () => {
        // Both requests bring the same pictures, as the peer's do.
        const start = Date.now();
        peer.answerVideo = ({cameras, response}) => {
            response.writeHead(200);
            pictures.slice(0, 20).forEach(
                (picture, i) => cameras.forEach(
                    (_, index) => response.write(pictureRecord(picture, {index, arrivalMs: start + i}))));
        };
        await openAndShow('Front', {init: countDecoders});
        await until(() => page.evaluate(() => decoders[0]?.length === 20), 'all pictures are decoded');
        await toggle(page, 'Door').click();
        await until(() => page.evaluate(() => decoders[1]?.length === 20), 'all pictures are decoded');
        assert.deepEqual(await page.evaluate(() => decoders.map(chunks => chunks.length)), [20, 20]);
    });

    it('asks for the size and the rate that were chosen', async () => {
        page = await open(browser, peer.address);
        const entry = page.locator('.entry').first();
        await entry.getByLabel('Size').selectOption('320 × 180');
        await toggle(page, 'Front').click();
        await until(() => peer.videos.length === 1, 'a request for video');
        assert.equal(String(peer.videos[0].query), 'camera=0&width=320&height=180&rate=30');
        peer.state.cameras[0].size = {width: 320, height: 180, rate: 30};
        peer.tell();
        await tile(page, 'Front').getByRole('button', {name: 'Settings'}).click();
        await tile(page, 'Front').getByLabel('Size').selectOption('640 × 360');
        await until(() => peer.posts.length === 1, 'a request');
        assert.deepEqual(
            peer.posts, [{name: 'format', body: {camera: 0, width: 640, height: 360, rate: 30}}]);
    });

    it('shows names of the host as text', async () => {
        peer.state.host.name = hostileName;
        peer.state.cameras[0].name = hostileName;
        peer.state.cameras[0].controls[0].name = hostileName;
        peer.answerVideo = ({response}) => {
            response.writeHead(200);
            response.write(stateRecord(0, 'refused', hostileName));
        };
        peer.state.cameras[0].state = 'refused';
        peer.state.cameras[0].text = hostileName;
        page = await open(browser, peer.address);
        await page.locator('.toggle').first().click();
        const shown = page.locator('.tile');
        await until(
            async () => (await shown.locator('.cover').textContent()).includes(hostileName), 'the reason');
        assert.equal(await page.locator('h1').textContent(), `Cameras of ${hostileName}`);
        assert.equal(await page.locator('.toggle .name').first().textContent(), hostileName);
        assert.equal(await shown.locator('h3').textContent(), hostileName);
        assert.equal(await page.locator('img, script:not([src])').count(), 0);
        assert.deepEqual(page.errors, []);
    });

    it('says each state in words', async () => {
        peer.answerVideo = ({response}) => response.writeHead(200).flushHeaders();
        await openAndShow();
        for (const [state, title, text] of [
                 ['connecting', 'Connecting', 'The camera is being opened.'],
                 ['waiting', 'Waiting', 'Waiting for the first picture.'],
                 ['stalled', 'Stalled', 'The camera is open, but no new picture comes.'],
                 ['gone', 'Camera is gone', 'It is shown again as soon as it is back.'],
                 ['busy', 'Busy', 'Another program uses the camera.'],
                 ['refused', 'Refused', 'The owner said no.'],
        ]) {
            Object.assign(
                peer.state.cameras[0], {state, text: state === 'refused' ? 'the owner said no' : ''});
            peer.tell();
            await isIn(page, 'Front', title);
            assert.equal(await tile(page, 'Front').locator('.cover > span').textContent(), text);
        }
        Object.assign(peer.state.host, {state: 'reconnecting', text: ''});
        peer.tell();
        await isIn(page, 'Front', 'Host is gone');
        assert.equal(await page.locator('#host-state').textContent(), 'Host is gone');
    });

    it('asks a camera that was refused again only when the person wants it', async () => {
        const seen = [];
        peer.answerVideo = video => {
            seen.push('begin');
            video.response.on('close', () => seen.push('end'));
            if (seen.length > 1) {
                Object.assign(peer.state.cameras[0], {state: 'live', text: ''});
                peer.tell();
                sendPictures(video);
                return;
            }
            video.response.writeHead(200);
            video.response.write(stateRecord(0, 'refused', ''));
        };
        Object.assign(peer.state.cameras[0], {state: 'refused', text: ''});
        await openAndShow();
        await isIn(page, 'Front', 'Refused');
        assert.deepEqual(seen, ['begin']);
        await tile(page, 'Front').getByRole('button', {name: 'Try again'}).click();
        await isIn(page, 'Front', 'Live');
        // In between nobody views the camera, so the peer closes it.
        assert.deepEqual(seen, ['begin', 'end', 'begin']);
    });

    it('says that the peer is gone, and goes on when it is back', async () => {
        await openAndShow();
        await isIn(page, 'Front', 'Live');
        const {port} = new URL(peer.address);
        await peer.stop();
        await isIn(page, 'Front', 'No answer');
        assert.match(await page.locator('#notice').textContent(), /^zu-camera-peer does not answer/);
        await peer.start(Number(port));
        await isIn(page, 'Front', 'Live');
        assert.equal(await page.locator('#notice').isVisible(), false);
    });

    it('asks again after a stream that is malformed', async () => {
        let requests = 0;
        peer.answerVideo = video => {
            if (++requests > 1) {
                sendPictures(video);
                return;
            }
            video.response.writeHead(200);
            video.response.write(Buffer.from([0xff, 0xff, 0xff, 0xff, 1, 0, 0, 0]));
        };
        await openAndShow();
        await isIn(page, 'Front', 'Live');
        assert.equal(requests, 2);
        await until(() => peer.videos.length === 1, 'the first one is closed');
        assert.deepEqual(page.errors, []);
    });

    it('drops what a slow decoder has not decoded, up to the next key picture', async () => {
        await openAndShow('Front', {init: stopDecoders});
        // The next key picture comes after two seconds.
        await until(
            () => page.evaluate(() => decoders.length >= 2 && decoders[1].length > 0), 'a new decoder');
        const [first, second] = await page.evaluate(() => decoders);
        assert.equal(first[0], 'key');
        assert.equal(second[0], 'key');
        const lost = tile(page, 'Front').locator('.figure', {hasText: 'Lost pictures'}).locator('.value');
        await until(
            async () => Number(await lost.textContent()) >= first.length, 'the lost pictures are counted');
    });

    it('ends its streams while it is hidden', async () => {
        const setHidden = hidden => page.evaluate(value => {
            Object.defineProperty(document, 'hidden', {configurable: true, value});
            document.dispatchEvent(new Event('visibilitychange'));
        }, hidden);
        await openAndShow();
        await isIn(page, 'Front', 'Live');
        await setHidden(true);
        await until(() => peer.videos.length === 0 && peer.eventStreams === 0, 'all streams have ended');
        await isIn(page, 'Front', 'Paused');
        await setHidden(false);
        await isIn(page, 'Front', 'Live');
        assert.equal(peer.eventStreams, 1);
        assert.deepEqual(page.errors, []);
    });

    it('can be used by the keyboard', async () => {
        peer.answerPost = ({body}) => {
            peer.state.cameras[0].recording =
                body.on ? {file: 'front-1.mp4', seconds: 83, bytes: 1_234_567} : null;
            peer.tell();
            return [200, '{"file":"front-1.mp4"}'];
        };
        page = await open(browser, peer.address);
        await toggle(page, 'Front').waitFor();
        await page.keyboard.press('1');
        await isIn(page, 'Front', 'Live');
        const front = tile(page, 'Front');
        await page.keyboard.press('c');
        await front.getByLabel('Brightness').waitFor();
        const [saved] = await Promise.all([page.waitForEvent('download'), page.keyboard.press('s')]);
        assert.match(saved.suggestedFilename(), /^Front-\d{8}-\d{6}\.png$/);
        const png = await readFile(await saved.path());
        assert.equal(png.subarray(1, 4).toString(), 'PNG');
        assert.deepEqual([png.readUInt32BE(16), png.readUInt32BE(20)], [640, 360]);
        await page.keyboard.press('r');
        await front.getByText('Recording front-1.mp4: 1:23, 1.2 MB').waitFor();
        await page.keyboard.press('r');
        const link = front.getByRole('link', {name: 'front-1.mp4'});
        await link.waitFor();
        assert.equal(await link.getAttribute('href'), 'recording/front-1.mp4');
        assert.deepEqual(peer.posts.map(post => post.body), [{camera: 0, on: true}, {camera: 0, on: false}]);
        await page.keyboard.press('f');
        await page.waitForFunction(() => document.fullscreenElement?.className === 'stage');
        await page.keyboard.press('f');
        await page.waitForFunction(() => document.fullscreenElement === null);
        await page.keyboard.press('?');
        await page.getByRole('dialog').waitFor();
        await page.getByLabel('Use these letters and digits').uncheck();
        await page.keyboard.press('Escape');
        await page.getByRole('dialog').waitFor({state: 'hidden'});
        await page.keyboard.press('x');
        assert.equal(await front.count(), 1);
        await page.keyboard.press('?');
        await page.getByLabel('Use these letters and digits').check();
        await page.keyboard.press('Escape');
        await page.getByRole('dialog').waitFor({state: 'hidden'});
        await page.keyboard.press('x');
        await front.waitFor({state: 'detached'});
        assert.deepEqual(page.errors, []);
    });

    it('sets controls, and shows why one was not set', async () => {
        await openAndShow();
        const front = tile(page, 'Front');
        await front.getByRole('button', {name: 'Settings'}).click();
        await front.getByLabel('Brightness').fill('200');
        await until(() => peer.posts.length === 1, 'a request');
        await front.getByLabel('Focus automatic').uncheck();
        await until(() => peer.posts.length === 2, 'a request');
        peer.answerPost = () => [409, '{"error":"The camera is busy."}'];
        await front.getByLabel('Focus', {exact: true}).fill('60');
        await front.getByText('The camera is busy.').waitFor();
        assert.deepEqual(peer.posts, [
            {name: 'control', body: {camera: 0, name: 'brightness', value: 200}},
            {name: 'control', body: {camera: 0, name: 'focus', automatic: false}},
            {name: 'control', body: {camera: 0, name: 'focus', value: 60}},
        ]);
    });

    it('says in one sentence that the browser has no WebCodecs or no H.264', async () => {
        for (const [init, words] of [
                 [
                     () => delete globalThis.VideoDecoder,
                   'This browser cannot show the pictures: it has no WebCodecs. Use a newer browser.'
                 ],
                 [
                     () => VideoDecoder.isConfigSupported = () => Promise.resolve({supported: false}),
                    'This browser cannot show the pictures: it cannot decode H.264.'
                 ],
        ]) {
            await page?.context().close();
            page = await open(browser, peer.address, {init});
            await page.getByText(words).waitFor();
            await toggle(page, 'Front').click();
            assert.equal(peer.videos.length, 0);
            assert.deepEqual(page.errors, []);
        }
    });

    for (const colorScheme of ['light', 'dark']) {
        it(`has no fault that axe-core finds, ${colorScheme}`, async () => {
            Object.assign(peer.state.cameras[1], {state: 'refused', text: 'the owner said no'});
            peer.state.cameras[0].recording = {file: 'front-1.mp4', seconds: 1, bytes: 1000};
            await openAndShow('Front', {colorScheme});
            await toggle(page, 'Door').click();
            await tile(page, 'Front').getByRole('button', {name: 'Settings'}).click();
            await isIn(page, 'Front', 'Live');
            assert.deepEqual(await complaints(page), []);
            await page.keyboard.press('?');
            await page.getByRole('dialog').waitFor();
            assert.deepEqual(await complaints(page), []);
        });
    }

    it('needs no horizontal scrolling in a narrow window, nor with large text', async () => {
        peer.state.cameras[0].name =
            'A camera with a name that is rather long, and_with_a_word_that_is_even_longer';
        for (const [width, text] of [[360, '100%'], [360, '200%'], [1600, '200%']]) {
            await page?.context().close();
            await openAndShow('A camera', {viewport: {width, height: 800}});
            await page.evaluate(size => document.documentElement.style.fontSize = size, text);
            await isIn(page, 'A camera', 'Live');
            await tile(page, 'A camera').getByRole('button', {name: 'Settings'}).click();
            const wide = await page.evaluate(
                () => [...document.querySelectorAll('main *, header *')]
                          .filter(each => !each.closest('.for-readers, svg, #tiles option'))
                          .filter(
                              each => each.getBoundingClientRect().right >
                                  document.documentElement.clientWidth + 1)
                          .map(each => each.outerHTML.slice(0, 80)));
            assert.deepEqual(wide, [], `${width} pixels, ${text}`);
        }
    });
});
