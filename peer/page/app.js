// The page of `zu-camera-peer view`: the list of cameras, those that are shown, and the keyboard.

import {CameraEntry} from './camera_entry.js';
import {CameraTile} from './camera_tile.js';
import {setText} from './dom.js';
import {StateEvents} from './peer.js';
import {VideoStream} from './video_stream.js';
import {describe, noH264, noWebCodecs} from './words.js';

const mostShown = 16;  // as many as the peer sends in one stream
const hiddenMs = 3000;

const element = id => document.getElementById(id);
const entries = new Map();  // String(camera.id) -> CameraEntry, in the order of the list
const tiles = new Map();    // the same of CameraTile, in the order in which they were shown
let state = null;           // what the peer said last
let isPaused = false;
let canDecode = true;
let peerAnswers = true;
const video = new VideoStream();

const events = new StateEvents(newest => {
    state = newest;
    peerAnswers = true;
    showAll();
    restore();
});

function cameras() {
    return state?.cameras ?? [];
}

// What keeps all cameras from being shown, or ''.
function outside() {
    if (isPaused) {
        return 'paused';
    }
    if (!peerAnswers) {
        return 'peerGone';
    }
    return state && state.host.state !== 'connected' ? 'hostGone' : '';
}

function showAll() {
    showHost();
    const list = cameras();
    const known = new Set(list.map(camera => String(camera.id)));
    for (const [key, entry] of entries) {
        if (!known.has(key)) {
            entry.element.remove();
            entries.delete(key);
        }
    }
    list.forEach((camera, i) => {
        const key = String(camera.id);
        let entry = entries.get(key);
        if (!entry) {
            entry = new CameraEntry(() => toggle(key));
            entries.set(key, entry);
        }
        if (element('camera-list').children[i] !== entry.element) {
            element('camera-list').insertBefore(entry.element, element('camera-list').children[i] ?? null);
        }
        entry.show(camera, tiles.has(key), i + 1);
    });
    for (const [key, tile] of tiles) {
        const camera = list.find(each => String(each.id) === key) ?? null;
        tile.update(camera, state?.recordings?.findLast(each => String(each.camera) === key)?.file ?? null);
        tile.showState(performance.now(), outside());
    }
    fetchVideo();
    element('no-cameras').hidden = list.length > 0;
    if (state?.host.state === 'connected') {
        setText(element('no-cameras'), 'The host lends no camera now. One that is plugged in appears here.');
    }
    element('nothing-shown').hidden = tiles.size > 0 || list.length === 0;
}

// The state in which the host is says nothing about what still comes from the peer.
function fetchVideo() {
    const why = outside();
    const now = performance.now();
    if (why === 'paused' || why === 'peerGone') {
        video.stop();
        tiles.forEach(tile => tile.pause());
    } else if (why === '' || tiles.size === 0) {
        video.update([...tiles.values()].filter(tile => tile.wantsVideo(now)), now);
    }
}

function showHost() {
    const pill = element('host-state');
    let words = describe('connecting');
    if (!peerAnswers) {
        words = describe('peerGone');
    } else if (state) {
        words = describe(state.host.state === 'connected' ? 'live' : 'hostGone', state.host.text);
    }
    pill.dataset.state = words.state;
    setText(pill, words.state === 'live' ? 'Connected' : words.title);
    const name = state?.host.name;
    setText(element('title'), name ? `Cameras of ${name}` : 'Cameras');
    document.title = element('title').textContent;
    if (canDecode) {
        notify(words.state === 'peerGone' || words.state === 'hostGone' ? words.text : '');
    }
}

function notify(text) {
    element('notice').hidden = text === '';
    setText(element('notice'), text);
}

function announce(text) {
    setText(element('announcer'), text);
}

function toggle(key) {
    if (tiles.has(key)) {
        hide(key);
    } else {
        show(key);
    }
}

function show(key, hasFocus = true) {
    const camera = cameras().find(each => String(each.id) === key);
    if (!camera || !canDecode) {
        return;
    }
    if (tiles.size === mostShown) {
        announce(`At most ${mostShown} cameras are shown at once. Hide one first.`);
        notify(`At most ${mostShown} cameras are shown at once. Hide one first.`);
        return;
    }
    const tile = new CameraTile(camera, entries.get(key).format, {
        announce,
        onHide: () => {
            hide(key);
            entries.get(key)?.focus();
        },
        onChange: fetchVideo,
    });
    tiles.set(key, tile);
    element('tiles').append(tile.element);
    tile.tick(performance.now(), outside());
    if (hasFocus) {
        tile.element.focus();
    }
    remember();
    showAll();
}

function hide(key) {
    tiles.get(key).close();
    tiles.get(key).element.remove();
    tiles.delete(key);
    remember();
    showAll();
}

// A page that is loaded again shows the same cameras.
function remember() {
    sessionStorage.setItem('shown', JSON.stringify([...tiles.keys()]));
}

let toRestore = JSON.parse(sessionStorage.getItem('shown') ?? '[]');
function restore() {
    const keys = toRestore;
    toRestore = [];
    for (const key of keys.slice(0, mostShown)) {
        show(key, false);
    }
}

setInterval(() => {
    const answers = isPaused || events.check();
    if (answers !== peerAnswers) {
        peerAnswers = answers;
        showHost();
    }
    tickTiles();
}, 1000);

let hiding = 0;
document.addEventListener('visibilitychange', () => {
    clearTimeout(hiding);
    if (document.hidden) {
        hiding = setTimeout(() => {
            isPaused = true;
            events.stop();
            tickTiles();
        }, hiddenMs);
    } else if (isPaused) {
        isPaused = false;
        events.start();
        tickTiles();
    }
});

function tickTiles() {
    for (const tile of tiles.values()) {
        tile.tick(performance.now(), outside());
    }
    fetchVideo();
}

// The keyboard.

const help = element('help');
element('open-help').addEventListener('click', () => help.showModal());
element('close-help').addEventListener('click', () => help.close());
element('use-keys').checked = localStorage.getItem('keys') !== 'off';
element('use-keys').addEventListener('change', event => {
    localStorage.setItem('keys', event.target.checked ? 'on' : 'off');
});

const tileKeys = {
    s: tile => tile.snapshot(),
    r: tile => tile.record(),
    c: tile => tile.toggleSettings(),
    f: tile => tile.toggleFullScreen(),
    x: tile => tile.hide(),
};

// The tile that a letter applies to.
function keyTile(target) {
    for (const tile of tiles.values()) {
        if (tile.element.contains(target)) {
            return tile;
        }
    }
    return tiles.size === 1 ? [...tiles.values()][0] : null;
}

document.addEventListener('keydown', event => {
    if (event.ctrlKey || event.altKey || event.metaKey || help.open) {
        return;
    }
    if (event.key === '?') {
        help.showModal();
        return;
    }
    if (!element('use-keys').checked || event.target.closest('select, input')) {
        return;
    }
    const index = '123456789'.indexOf(event.key);
    if (index >= 0) {
        const camera = cameras()[index];
        if (camera) {
            toggle(String(camera.id));
        }
        return;
    }
    const tile = keyTile(event.target);
    const act = tileKeys[event.key.toLowerCase()];
    if (tile && act) {
        act(tile);
    }
});

// Whether this browser can show anything at all.
async function checkDecoder() {
    let reason = '';
    if (!('VideoDecoder' in window)) {
        reason = noWebCodecs;
    } else {
        const {supported} = await VideoDecoder.isConfigSupported({codec: 'avc1.42e01f'}).catch(() => ({}));
        reason = supported ? '' : noH264;
    }
    canDecode = reason === '';
    if (!canDecode) {
        notify(reason);
    }
}

await checkDecoder();
events.start();
