// The connection to zu-camera-peer: the state of everything, and requests.

const silenceMs = 12_000;  // it sends its state at least every 5 s
const answerMs = 15_000;

// The state as events bring it. A hidden page needs none.
export class StateEvents {
    #source = null;
    #heardAt = performance.now();
    #onState;

    constructor(onState) {
        this.#onState = onState;
    }

    start() {
        if (this.#source) {
            return;
        }
        this.#heardAt = performance.now();
        this.#open();
    }

    stop() {
        this.#source?.close();
        this.#source = null;
    }

    // Called once a second: whether the peer answers. An event source that gave up is opened again.
    check(now = performance.now()) {
        if (this.#source?.readyState === EventSource.CLOSED) {
            this.#open();
        }
        return now - this.#heardAt < silenceMs && this.#isOpen;
    }

    #isOpen = true;  // assumed until the first failure

    #open() {
        this.#source?.close();
        this.#source = new EventSource('events');
        this.#source.onmessage = event => {
            this.#heardAt = performance.now();
            this.#isOpen = true;
            let state;
            try {
                state = JSON.parse(event.data);
            } catch {
                return;
            }
            this.#onState(state);
        };
        this.#source.onerror = () => {
            this.#isOpen = false;
        };
    }
}

// Sends a request. Returns its answer, or throws an Error whose message is for the person.
export async function post(name, body) {
    let response;
    try {
        response = await fetch(name, {
            method: 'POST',
            headers: {'Content-Type': 'application/json'},
            body: JSON.stringify(body),
            signal: AbortSignal.timeout(answerMs),
        });
    } catch {
        throw new Error('zu-camera-peer does not answer.');
    }
    if (!response.ok) {
        throw new Error(await errorText(response));
    }
    return response.status === 204 ? {} : response.json().catch(() => ({}));
}

// The words of an answer that is an error.
export async function errorText(response) {
    const answer = await response.json().catch(() => null);
    return typeof answer?.error === 'string' && answer.error !== '' ?
        answer.error :
        `The peer answered with error ${response.status}.`;
}
