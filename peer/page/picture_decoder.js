// Decodes the pictures of one camera without a growing delay.
//
// A decoder that is slower than the camera would collect pictures, and the person would see older and older
// ones. Therefore a picture that has waited for the decoder for a second makes it drop everything up to the
// next key picture. The time counts from when the decoder got it: a new viewer gets all pictures since the
// last key picture at once, which are old but not late.

import {codecName, findSps} from './h264.js';

const greatestWaitMs = 1000;
const greatestQueue = 300;
const greatestFailures = 3;

export class PictureDecoder {
    #decoder = null;
    #sps = null;
    #needsKey = true;
    #timestamp = 0;
    #waiting = new Map();  // time stamp of the decoder -> {record, fedAt}
    #failures = 0;         // since the last picture
    #onPicture;
    #onFailure;

    dropped = 0;  // pictures that were not decoded

    // onPicture(frame, record): the receiver closes the frame. onFailure(): this stream cannot be decoded.
    constructor(onPicture, onFailure) {
        this.#onPicture = onPicture;
        this.#onFailure = onFailure;
    }

    // Pictures that came together, in order.
    decode(records, now = performance.now()) {
        for (const record of this.#withoutLate(records, now)) {
            this.#decodeOne(record, now);
        }
    }

    // The next picture is of a new stream.
    reset() {
        this.close();
        this.#failures = 0;
    }

    close() {
        if (this.#decoder && this.#decoder.state !== 'closed') {
            this.#decoder.close();
        }
        this.#decoder = null;
        this.#sps = null;
        this.#needsKey = true;
        this.#waiting.clear();
    }

    #isLate(now) {
        const oldest = this.#waiting.values().next().value;
        return oldest !== undefined &&
            (now - oldest.fedAt > greatestWaitMs || this.#waiting.size > greatestQueue);
    }

    // While the decoder is late, the pictures before the last key picture are left out.
    #withoutLate(records, now) {
        if (!this.#isLate(now)) {
            return records;
        }
        this.dropped += this.#waiting.size;
        this.close();
        const newest = Math.max(records.findLastIndex(record => record.isKey), 0);
        this.dropped += newest;
        return records.slice(newest);
    }

    #decodeOne(record, now) {
        if (this.#needsKey && !record.isKey) {
            ++this.dropped;
            return;
        }
        if (record.isKey && !this.#configure(record.data)) {
            ++this.dropped;
            this.#needsKey = true;
            return;
        }
        const timestamp = this.#timestamp++;
        this.#waiting.set(timestamp, {record, fedAt: now});
        this.#needsKey = false;
        try {
            const {data} = record;
            this.#decoder.decode(
                new EncodedVideoChunk({type: record.isKey ? 'key' : 'delta', timestamp, data}));
        } catch {
            this.#fail();
        }
    }

    // Prepares the decoder for a key picture. Returns false if it is not one.
    #configure(data) {
        const sps = findSps(data);
        const codec = sps && codecName(sps);
        if (!codec) {
            return false;
        }
        if (!this.#decoder) {
            this.#decoder = new VideoDecoder({output: frame => this.#take(frame), error: () => this.#fail()});
        }
        const isSame =
            this.#sps && this.#sps.length === sps.length && this.#sps.every((byte, i) => byte === sps[i]);
        if (!isSame) {
            this.#decoder.configure({codec, optimizeForLatency: true});
            this.#sps = sps.slice();
        }
        return true;
    }

    #take(frame) {
        const {timestamp} = frame;
        const entry = this.#waiting.get(timestamp);
        for (const earlier of this.#waiting.keys()) {
            if (earlier > timestamp) {
                break;
            }
            this.#waiting.delete(earlier);
        }
        if (!entry) {
            frame.close();
            return;
        }
        this.#failures = 0;
        this.#onPicture(frame, entry.record);
    }

    // A decoder is closed by an error. The next key picture gets a new one.
    #fail() {
        ++this.#failures;
        this.dropped += this.#waiting.size;
        this.close();
        if (this.#failures === greatestFailures) {
            this.#onFailure();
        }
    }
}
