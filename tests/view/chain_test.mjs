// The whole chain: virtual cameras, the host, the peer, and the page in Chromium. What the canvas shows is
// read back.

import assert from 'node:assert/strict';
import {readFile} from 'node:fs/promises';
import {request} from 'node:http';
import {after, afterEach, before, describe, it} from 'node:test';

import {isIn, launch, open, showsMovingPictures, tile, toggle} from './browser.mjs';
import {Chain} from './chain.mjs';

describe('the page with real cameras', () => {
    const chain = new Chain([
        'card=Front,formats=NV12,sizes=640x480:320x240,fps=30',
        'card=Door,formats=YUYV,sizes=320x240,fps=15',
    ]);
    let browser;
    let pages = [];

    before(async () => {
        browser = await launch();
        await chain.startHost();
        await chain.startPeer();
    });
    after(async () => {
        await browser.close();
        await chain.stop();
    });
    afterEach(async () => {
        await Promise.all(pages.map(page => page.context().close()));
        pages = [];
    });

    async function openPage() {
        pages.push(await open(browser, chain.address));
        return pages.at(-1);
    }

    it('shows two cameras, whose counters move', async () => {
        const page = await openPage();
        await toggle(page, 'Front').click();
        await showsMovingPictures(tile(page, 'Front'), 640, 480);
        await toggle(page, 'Door').click();
        await showsMovingPictures(tile(page, 'Door'), 320, 240);
        await showsMovingPictures(tile(page, 'Front'), 640, 480);
        await isIn(page, 'Front', 'Live');
        await isIn(page, 'Door', 'Live');
        assert.deepEqual(page.errors, []);
    });

    it('opens a camera in the chosen size, and changes it', async () => {
        const page = await openPage();
        await page.locator('.entry', {hasText: 'Front'}).getByLabel('Size').selectOption('320 × 240');
        await toggle(page, 'Front').click();
        const front = tile(page, 'Front');
        await showsMovingPictures(front, 320, 240);
        await front.getByRole('button', {name: 'Settings'}).click();
        await front.getByLabel('Size').selectOption('640 × 480');
        await showsMovingPictures(front, 640, 480);
        assert.deepEqual(page.errors, []);
    });

    it('shows a camera in two windows, and goes on in one of them', async () => {
        const first = await openPage();
        await toggle(first, 'Front').click();
        await showsMovingPictures(tile(first, 'Front'), 640, 480);
        const second = await openPage();
        await toggle(second, 'Front').click();
        await showsMovingPictures(tile(second, 'Front'), 640, 480);
        await showsMovingPictures(tile(first, 'Front'), 640, 480);
        assert.deepEqual(first.errors, []);
        await first.context().close();
        await showsMovingPictures(tile(second, 'Front'), 640, 480);
        assert.deepEqual(second.errors, []);
    });

    it('records, and the file can be downloaded', async () => {
        const page = await openPage();
        await toggle(page, 'Front').click();
        const front = tile(page, 'Front');
        await showsMovingPictures(front, 640, 480);
        await front.getByRole('button', {name: 'Record', exact: true}).click();
        await front.getByText(/^Recording (?!.*: 0:00)/).waitFor();
        await front.getByRole('button', {name: 'Stop recording'}).click();
        const [file] = await Promise.all([page.waitForEvent('download'), front.getByRole('link').click()]);
        const content = await readFile(await file.path());
        assert.equal(content.subarray(4, 8).toString(), 'ftyp');
        assert.ok(content.length > 1000, `${content.length} bytes`);
        // A page that is loaded again shows the same camera, and its last recording.
        await page.reload();
        await showsMovingPictures(front, 640, 480);
        await front.getByRole('link', {name: file.suggestedFilename()}).waitFor();
        assert.deepEqual(page.errors, []);
    });

    it('says that a camera was unplugged, and shows it when it is back', async () => {
        const page = await openPage();
        await toggle(page, 'Front').click();
        await showsMovingPictures(tile(page, 'Front'), 640, 480);
        chain.fault(0, 'unplug');
        await isIn(page, 'Front', 'Camera is gone');
        chain.fault(0, 'replug/1');
        await showsMovingPictures(tile(page, 'Front'), 640, 480);
        await isIn(page, 'Front', 'Live');
        assert.deepEqual(page.errors, []);
    });

    it('says that the host is gone, and shows its cameras when it is back', async () => {
        const page = await openPage();
        await toggle(page, 'Front').click();
        await showsMovingPictures(tile(page, 'Front'), 640, 480);
        await chain.killHost();
        await isIn(page, 'Front', 'Host is gone');
        await chain.startHost();
        await showsMovingPictures(tile(page, 'Front'), 640, 480);
        await isIn(page, 'Front', 'Live');
        assert.equal(await page.locator('#host-state').textContent(), 'Connected');
        assert.deepEqual(page.errors, []);
    });

    // The status and the text of an answer.
    function ask(path, headers = {}, method = 'GET') {
        const {hostname, port} = new URL(chain.address);
        return new Promise((resolve, reject) => {
            request({hostname, port, path, headers, method}, async answer => {
                let text = '';
                for await (const piece of answer) {
                    text += piece;
                }
                resolve([answer.statusCode, text]);
            }).on('error', reject).end();
        });
    }

    it('answers nobody who does not know the address, and no page of another origin', async () => {
        const {host, pathname} = new URL(chain.address);
        const wrong = pathname.replace(/.\/$/, last => last === '0/' ? '1/' : '0/');
        assert.equal((await ask(pathname))[0], 200);
        assert.deepEqual(await ask('/'), [404, '']);
        assert.deepEqual(await ask(wrong), [404, '']);
        assert.deepEqual(await ask(`${wrong}events`), [404, '']);
        assert.equal((await ask(pathname, {Host: 'camera.example'}))[0], 403);
        assert.equal((await ask(pathname, {Host: host, Origin: 'http://camera.example'}))[0], 403);
        assert.equal(
            (await ask(`${pathname}record`, {Host: host, 'Content-Type': 'application/json'}, 'POST'))[0],
            403);
    });
});
