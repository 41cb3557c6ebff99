// The video of all cameras that are shown, in one fetch: a browser has few connections to one address.
//
// When a camera is shown or hidden, a new fetch with the new set replaces the running one. The peer sends
// each camera's pictures since its last key picture again; the tile leaves out those that it has.

import {errorText} from './peer.js';
import {pictureType, RecordReader} from './records.js';

const firstRetryMs = 500;
const greatestRetryMs = 8000;

export class VideoStream {
    #tiles = [];    // in the order of the request
    #abort = null;  // of the running fetch
    #retryMs = firstRetryMs;
    #retryAt = -Infinity;

    // Fetches what these tiles show. Called after each change and once a second.
    update(tiles, now = performance.now()) {
        const kept = this.#tiles.filter(tile => tiles.includes(tile));
        const added = tiles.filter(tile => !kept.includes(tile));
        if (tiles.length === 0) {
            this.stop();
        } else if ((added.length > 0 || kept.length < this.#tiles.length) && now >= this.#retryAt) {
            // A request has one format, for the cameras that it opens. Those of another one are added next
            // time.
            const format = added[0]?.format ?? null;
            const key = JSON.stringify(format);
            this.#start([...kept, ...added.filter(tile => JSON.stringify(tile.format) === key)], format);
        }
    }

    stop() {
        this.#abort?.abort();
        this.#abort = null;
        this.#tiles = [];
        this.#retryAt = -Infinity;
    }

    // `format` is {width, height, rate}, or null for the peer's default.
    #start(tiles, format) {
        this.#abort?.abort();
        this.#abort = new AbortController();
        this.#tiles = tiles;
        for (const tile of tiles) {
            tile.beginFetch();
        }
        const query = new URLSearchParams(tiles.map(tile => ['camera', tile.id]));
        for (const [name, value] of Object.entries(format ?? {})) {
            query.set(name, value);
        }
        void this.#run(query, this.#abort);
    }

    async #run(query, abort) {
        let words = '';
        try {
            const response = await fetch(`video?${query}`, {signal: abort.signal});
            if (response.ok) {
                await this.#read(response.body.getReader(), abort.signal);
            } else {
                words = await errorText(response);
            }
        } catch {
            // The peer is gone, or what it sent is not a stream of records.
        }
        if (abort.signal.aborted) {
            return;
        }
        abort.abort();  // also ends a fetch whose records are malformed
        const tiles = this.#tiles;
        this.stop();
        this.#retryAt = performance.now() + this.#retryMs;
        this.#retryMs = Math.min(2 * this.#retryMs, greatestRetryMs);
        for (const tile of tiles) {
            tile.fetchEnded(words);
        }
    }

    // Returns once the stream has ended.
    async #read(body, signal) {
        const reader = new RecordReader();
        for (;;) {
            const {done, value} = await body.read();
            if (done || signal.aborted) {
                return;
            }
            this.#retryMs = firstRetryMs;
            const pictures = this.#tiles.map(() => []);
            for (const record of reader.add(value)) {
                if (record.type === pictureType) {
                    pictures[record.index]?.push(record);
                } else {
                    this.#tiles.find(tile => tile.id === record.camera)?.setState(record);
                }
            }
            pictures.forEach((some, index) => {
                if (some.length > 0) {
                    this.#tiles[index].addPictures(some);
                }
            });
        }
    }
}
