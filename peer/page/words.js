// The words of the page: states, numbers, file names.

// The state of a camera, as a title and an explanation.
const states = {
    idle: ['Closed', ''],
    connecting: ['Connecting', 'The camera is being opened.'],
    waiting: ['Waiting', 'Waiting for the first picture.'],
    live: ['Live', ''],
    stalled: ['Stalled', 'The camera is open, but no new picture comes.'],
    gone: ['Camera is gone', 'It is shown again as soon as it is back.'],
    busy: ['Busy', 'Another program uses the camera.'],
    refused: ['Refused', 'The host does not lend this camera.'],
    paused: ['Paused', 'The page is hidden.'],
    hostGone: ['Host is gone', 'Connecting to it again.'],
    peerGone: [
        'No answer',
        'zu-camera-peer does not answer. If it was started again, open the address that it printed.'
    ],
    failed: ['Not shown', ''],
};

// `text`, if there is one, is the peer's reason for a refusal.
export function describe(state, text = '') {
    const [title, explanation] = states[state] ?? ['Unknown', ''];
    const isReason = text !== '' && (state === 'refused' || state === 'failed');
    return {state: states[state] ? state : 'failed', title, text: isReason ? sentence(text) : explanation};
}

function sentence(text) {
    return text.charAt(0).toUpperCase() + text.slice(1) + (/[.!?]$/.test(text) ? '' : '.');
}

export const noWebCodecs = 'This browser cannot show the pictures: it has no WebCodecs. Use a newer browser.';
export const noH264 = 'This browser cannot show the pictures: it cannot decode H.264.';

export function bitRate(bitsPerSecond) {
    return bitsPerSecond >= 999_500 ? `${(bitsPerSecond / 1e6).toFixed(1)} Mbit/s` :
                                      `${Math.round(bitsPerSecond / 1000)} kbit/s`;
}

export function byteCount(bytes) {
    return bytes >= 999_500 ? `${(bytes / 1e6).toFixed(1)} MB` : `${Math.round(bytes / 1000)} kB`;
}

export function duration(seconds) {
    const whole = Math.floor(seconds);
    const parts = [Math.floor(whole / 3600), Math.floor(whole / 60) % 60, whole % 60];
    const shown = parts[0] > 0 ? parts : parts.slice(1);
    return shown.map((part, index) => index === 0 ? String(part) : String(part).padStart(2, '0')).join(':');
}

export function sizeText(size) {
    return `${size.width} × ${size.height}`;
}

// The name of a snapshot: the camera's name without what a file system could mistake, and the local time.
export function snapshotName(camera, now = new Date()) {
    const name = camera.replace(/[^\p{L}\p{N}]+/gu, '-').replace(/^-|-$/g, '').slice(0, 60) || 'camera';
    const two = number => String(number).padStart(2, '0');
    return `${name}-${now.getFullYear()}${two(now.getMonth() + 1)}${two(now.getDate())}` +
        `-${two(now.getHours())}${two(now.getMinutes())}${two(now.getSeconds())}.png`;
}
