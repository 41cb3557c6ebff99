// A server that speaks to the page as `zu-camera-peer view` does, but shows what a test tells it: names and
// states that a real host does not have.

import {execFileSync} from 'node:child_process';
import {readFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {fileURLToPath} from 'node:url';

const types = {
    html: 'text/html; charset=utf-8',
    css: 'text/css',
    js: 'text/javascript',
    svg: 'image/svg+xml'
};
const policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob:; media-src 'self' blob:; " +
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// The pictures of two seconds of a test pattern, each {isKey, data}; the first one is a key picture.
export function encodePictures(width, height, rate) {
    const stream = execFileSync(
        'ffmpeg',
        [
            '-nostdin',
            '-v',
            'error',
            '-f',
            'lavfi',
            '-i',
            `testsrc2=size=${width}x${height}:rate=${rate}`,
            '-t',
            '2',
            '-pix_fmt',
            'yuv420p',
            '-c:v',
            'libx264',
            '-preset',
            'ultrafast',
            '-tune',
            'zerolatency',
            '-g',
            String(2 * rate),
            '-x264-params',
            'aud=1:slices=1',
            '-f',
            'h264',
            '-'
        ],
        {maxBuffer: 1 << 26});
    const delimiter = Buffer.from([0, 0, 0, 1, 9]);
    const pictures = [];
    for (let begin = stream.indexOf(delimiter); begin >= 0;) {
        const end = stream.indexOf(delimiter, begin + 1);
        const data = stream.subarray(begin, end < 0 ? stream.length : end);
        pictures.push({isKey: data.includes(Buffer.from([0, 0, 1, 0x65])), data});
        begin = end;
    }
    return pictures;
}

// `index` is that of the camera in the request.
export function pictureRecord({isKey, data}, {index = 0, lost = 0, arrivalMs = Date.now()} = {}) {
    const record = Buffer.alloc(28 + data.length);
    record.writeUInt32LE(record.length - 4, 0);
    record[4] = 1;
    record[5] = isKey ? 1 : 0;
    record.writeUInt16LE(index, 6);
    record.writeBigUInt64LE(BigInt(Math.round(arrivalMs * 1000)), 16);
    record.writeUInt32LE(lost, 24);
    data.copy(record, 28);
    return record;
}

export function stateRecord(camera, state, text = '') {
    const json = Buffer.from(JSON.stringify({camera, state, text}));
    const record = Buffer.alloc(5);
    record.writeUInt32LE(1 + json.length, 0);
    record[4] = 2;
    return Buffer.concat([record, json]);
}

export function camera(id, name, more = {}) {
    return {
        id,
        name,
        sizes: [{width: 640, height: 360, rates: [30, 15]}, {width: 320, height: 180, rates: [30]}],
        state: 'idle',
        text: '',
        size: null,
        viewers: 0,
        recording: null,
        controls: null,
        stats: {frames: 0, lost: 0, bytes: 0, queue_ms: 0, round_trip_ms: 1.2},
        ...more
    };
}

export class FakePeer {
    state = {host: {name: 'desk', state: 'connected', text: ''}, directory: null, cameras: []};
    posts = [];                    // {name, body} of every request
    videos = [];                   // {cameras, query, response} of those that are open
    answerPost = () => [204, ''];  // ({name, body}) => [status, body]
    answerVideo = () => {};        // ({cameras, query, response}): writes to the response
    #events = new Set();
    #repeat = null;
    #server = createServer((request, response) => this.#answer(request, response));
    #page = fileURLToPath(new URL('../../peer/page/', import.meta.url));

    async start(port = 0) {
        await new Promise(resolve => this.#server.listen(port, '127.0.0.1', resolve));
        this.#repeat = setInterval(() => this.tell(), 2000);
        this.address = `http://127.0.0.1:${this.#server.address().port}/0123456789abcdef0123456789abcdef/`;
    }

    stop() {
        clearInterval(this.#repeat);
        this.#server.closeAllConnections();
        return new Promise(resolve => this.#server.close(resolve));
    }

    // Sends the state, after a change.
    tell() {
        for (const response of this.#events) {
            response.write(`data: ${JSON.stringify(this.state)}\n\n`);
        }
    }

    get eventStreams() {
        return this.#events.size;
    }

    async #answer(request, response) {
        const url = new URL(request.url, this.address);
        const name = url.pathname.split('/').slice(2).join('/');
        response.setHeader('Content-Security-Policy', policy);
        response.setHeader('X-Content-Type-Options', 'nosniff');
        if (request.method === 'POST') {
            let body = '';
            for await (const piece of request) {
                body += piece;
            }
            const post = {name, body: JSON.parse(body)};
            this.posts.push(post);
            const [status, answer] = this.answerPost(post);
            response.writeHead(status, {'Content-Type': 'application/json'}).end(answer);
        } else if (name === 'events') {
            response.writeHead(200, {'Content-Type': 'text/event-stream'});
            this.#events.add(response);
            response.on('close', () => this.#events.delete(response));
            response.write(`data: ${JSON.stringify(this.state)}\n\n`);
        } else if (name === 'video') {
            const video = {
                cameras: url.searchParams.getAll('camera').map(Number),
                query: url.searchParams,
                response
            };
            this.videos.push(video);
            response.on('close', () => this.videos.splice(this.videos.indexOf(video), 1));
            this.answerVideo(video);
        } else {
            const file = name === '' ? 'index.html' : name;
            let content;
            try {
                content = readFileSync(this.#page + file);
            } catch {
                response.writeHead(404).end();
                return;
            }
            response.writeHead(200, {'Content-Type': types[file.split('.').at(-1)]}).end(content);
        }
    }
}
