// Counts what arrives from one camera, and turns it into figures once a second.

const history = 60;

export class Meter {
    #begin;
    #drawn = 0;
    #bytes = 0;
    #latencies = [];
    #lostBefore = 0;

    lost = 0;  // since the camera is shown
    // One entry per second, the newest last; null where there is no value.
    series = {rate: [], bits: [], latency: [], lost: []};

    constructor(now) {
        this.#begin = now;
    }

    addBytes(count) {
        this.#bytes += count;
    }

    // The latency is null if it is not known.
    addPicture(latencyMs) {
        ++this.#drawn;
        if (latencyMs !== null) {
            this.#latencies.push(latencyMs);
        }
    }

    // Ends the interval.
    tick(now) {
        const seconds = Math.max(now - this.#begin, 1) / 1000;
        this.#begin = now;
        this.#latencies.sort((a, b) => a - b);
        const median = this.#latencies.length > 0 ? this.#latencies[this.#latencies.length >> 1] : null;
        this.#push('rate', this.#drawn / seconds);
        this.#push('bits', 8 * this.#bytes / seconds);
        this.#push('latency', median);
        this.#push('lost', Math.max(this.lost - this.#lostBefore, 0));
        this.#lostBefore = this.lost;
        this.#drawn = 0;
        this.#bytes = 0;
        this.#latencies = [];
    }

    #push(name, value) {
        this.series[name].push(value);
        this.series[name].splice(0, this.series[name].length - history);
    }
}

// The latency of a picture that is drawn at `nowMs` of the Unix clock. If the camera's time is of a clock
// that this machine shares, it is the time since then. Otherwise it is estimated: the time since the picture
// arrived at the peer, and what the peer knows about the line.
export function latencyMs(record, nowMs, stats) {
    const captureMs = record.captureUs / 1000;
    const arrivalMs = record.arrivalUs / 1000;
    const onTheWay = arrivalMs - captureMs;
    if (record.captureUs > 0 && onTheWay >= 0 && onTheWay < 10_000) {
        return Math.max(nowMs - captureMs, 0);
    }
    return Math.max(nowMs - arrivalMs, 0) + (stats?.round_trip_ms ?? 0) + (stats?.queue_ms ?? 0);
}
