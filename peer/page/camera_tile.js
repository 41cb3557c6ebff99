// A camera that is shown: its picture, its state in words, its figures and what can be done with it.
//
// The picture that was decoded last waits for the browser's next frame; one that comes before replaces it. A
// state comes from the peer, except where the page knows better: it sees pictures, and it sees that they
// stop.

import {ControlPanel} from './control_panel.js';
import {download, make, newId, setText} from './dom.js';
import {Figure} from './figure.js';
import {FormatChooser} from './format_chooser.js';
import {latencyMs, Meter} from './meter.js';
import {post} from './peer.js';
import {PictureDecoder} from './picture_decoder.js';
import {bitRate, byteCount, describe, duration, sizeText, snapshotName} from './words.js';

const freshMs = 3000;
const restMs = 2500;     // after it the peer has closed a camera that nobody views
const recordBytes = 28;  // in front of a picture
const joinUs = 10_000_000;

export class CameraTile {
    #camera;
    #format;
    #decoder = new PictureDecoder((frame, record) => this.#take(frame, record), () => this.#cannotDecode());
    #meter = new Meter(performance.now());

    #newest = null;  // {frame, record} that is drawn next
    #drawnAt = -Infinity;
    #lostByPeer = 0;  // in this fetch
    #lostBefore = 0;  // in earlier ones
    #state = 'connecting';
    #text = '';
    #failure = null;  // {state, text} if the peer refused the last fetch, or the browser cannot decode
    #canDecode = true;
    #restUntil = -Infinity;  // it is not fetched before
    #newestUs = 0;           // arrival of the newest picture at the peer
    #isJoining = false;      // the first pictures of a fetch may be known
    #fetchedAt = 0;          // by Date.now()
    #isListed = true;
    #shown = null;     // what the person reads: see describe()
    #lastFile = null;  // of the recording

    #canvas = make('canvas', {role: 'img', width: 16, height: 9});
    #context = this.#canvas.getContext('2d', {alpha: false});
    #stage;
    #cover;
    #coverTitle = make('strong');
    #coverText = make('span');
    #again = make('button', {type: 'button', click: () => this.#tryAgain(), hidden: true}, 'Try again');
    #name = make('h3', {id: newId()});
    #pill = make('p', {class: 'state'});
    #size = make('p', {class: 'quiet'});
    #recorded = make('p', {class: 'recorded', hidden: true});
    #message = make('p', {class: 'message', role: 'alert', hidden: true});
    #settings = make('div', {class: 'settings', id: newId(), hidden: true});
    #chooser = new FormatChooser(format => this.#request('format', format));
    #controls = new ControlPanel(change => this.#request('control', change));
    #buttons;
    #figures;
    #announce;
    #onHide;
    #onChange;

    // announce(text) tells a state to screen readers. onHide() takes the tile away. onChange(): what
    // wantsVideo() returns has changed.
    constructor(camera, format, {announce, onHide, onChange}) {
        this.#camera = camera;
        this.#format = format;
        this.#announce = announce;
        this.#onHide = onHide;
        this.#onChange = onChange;
        this.#cover = make('div', {class: 'cover'}, this.#coverTitle, this.#coverText, this.#again);
        this.#stage = make('div', {class: 'stage'}, this.#canvas, this.#cover);
        const button = (text, key, click, more = {}) =>
            make('button', {type: 'button', click, 'aria-keyshortcuts': key, ...more}, text);
        this.#buttons = {
            snapshot: button('Snapshot', 's', () => this.snapshot()),
            record: button('Record', 'r', () => this.record(), {class: 'record'}),
            settings: button(
                'Settings', 'c', () => this.toggleSettings(),
                {'aria-expanded': 'false', 'aria-controls': this.#settings.id}),
            fullScreen: button('Full screen', 'f', () => this.toggleFullScreen()),
            hide: button('Hide', 'x', () => this.hide()),
        };
        const toolbar = make(
            'div', {class: 'toolbar', role: 'group', 'aria-labelledby': this.#name.id},
            ...Object.values(this.#buttons));
        this.#figures = {
            rate: new Figure(
                'Pictures per second', value => value.toFixed(value < 9.95 ? 1 : 0),
                'Pictures that were drawn.'),
            bits: new Figure('Bit rate', bitRate, 'What arrives from the peer.'),
            latency: new Figure(
                'Latency', value => `${Math.round(value)} ms`,
                'From the camera to the screen. If the camera tells no time: from the arrival at ' +
                    'zu-camera-peer to the screen, and the round trip to the host.'),
            lost: new Figure(
                'Lost pictures', value => String(value), 'Pictures that did not reach the screen.'),
        };
        const figures =
            make('dl', {class: 'figures'}, ...Object.values(this.#figures).map(each => each.element));
        this.#settings.append(this.#chooser.element, this.#controls.element);
        this.element = make(
            'article', {class: 'tile', tabindex: '-1', 'aria-labelledby': this.#name.id},
            make('div', {class: 'head'}, this.#name, this.#pill, this.#size), this.#stage, toolbar,
            this.#message, this.#recorded, this.#settings, figures);
        this.update(camera, null);
        this.tick(performance.now(), 'connecting');
    }

    get id() {
        return this.#camera.id;
    }

    // In which the camera is to be opened, or null.
    get format() {
        return this.#format;
    }

    // What the peer says of this camera; null if it is not in the list. `lastFile` is its last complete
    // recording, or null.
    update(camera, lastFile) {
        this.#lastFile = lastFile ?? this.#lastFile;
        if (!camera) {
            this.#camera = {...this.#camera, state: 'gone', text: '', recording: null};
            this.#isListed = false;
            this.setState(this.#camera);
            return;
        }
        this.#isListed = true;
        this.#camera = camera;
        if (performance.now() >= this.#restUntil) {
            this.setState(camera);
        }
        setText(this.#name, camera.name);
        setText(this.#size, camera.size ? `${sizeText(camera.size)}, ${camera.size.rate} per second` : '');
        this.#chooser.show(camera.sizes, camera.size);
        this.#controls.show(camera.controls);
        this.#showRecording(camera.recording);
    }

    // Called once a second. `outside` is what keeps all cameras from being shown: 'paused', 'peerGone',
    // 'hostGone', or ''.
    tick(now, outside) {
        this.#meter.lost = this.#lostBefore + this.#lostByPeer + this.#decoder.dropped;
        this.#meter.tick(now);
        const {series, lost} = this.#meter;
        this.#figures.rate.show(series.rate);
        this.#figures.bits.show(series.bits);
        this.#figures.latency.show(series.latency);
        this.#figures.lost.show(series.lost, lost);
        this.showState(now, outside);
    }

    // What the person reads.
    showState(now, outside) {
        const isFresh = now - this.#drawnAt < Math.max(freshMs, 3000 / (this.#camera.size?.rate || 30));
        let shown;
        if (outside !== '') {
            shown = describe(outside);
        } else if (this.#failure) {
            shown = describe(this.#failure.state, this.#failure.text);
        } else if (isFresh && ['idle', 'connecting', 'waiting', 'live'].includes(this.#state)) {
            shown = describe('live');
        } else if (this.#state === 'live') {
            shown = describe(this.#drawnAt === -Infinity ? 'waiting' : 'stalled');
        } else {
            shown = describe(this.#state === 'idle' ? 'connecting' : this.#state, this.#text);
        }
        const isNew = shown.title !== this.#shown?.title;
        this.#shown = shown;
        this.element.dataset.state = shown.state;
        this.#pill.dataset.state = shown.state;
        setText(this.#pill, shown.title);
        setText(this.#coverTitle, shown.title);
        setText(this.#coverText, shown.text);
        this.#cover.hidden = shown.state === 'live';
        this.#again.hidden = !(shown.state === 'refused' || shown.state === 'failed');
        const hasPicture = this.#drawnAt !== -Infinity;
        this.#buttons.snapshot.disabled = !hasPicture;
        this.#buttons.record.disabled = outside !== '' && outside !== 'paused';
        this.#canvas.setAttribute(
            'aria-label', hasPicture ? `The picture of ${this.#camera.name}` : 'No picture yet');
        if (isNew) {
            this.#announce(`${this.#camera.name}: ${shown.title}. ${shown.text}`);
        }
    }

    // Whether its video is to be fetched, if nothing keeps all cameras from being shown. A camera that is not
    // in the list would be refused.
    wantsVideo(now) {
        return this.#isListed && this.#canDecode && now >= this.#restUntil;
    }

    // A request with this camera begins.
    beginFetch() {
        this.#lostBefore += this.#lostByPeer;
        this.#lostByPeer = 0;
        this.#isJoining = true;
        this.#fetchedAt = Date.now();
    }

    addPictures(pictures) {
        const fresh = this.#withoutKnown(pictures);
        if (fresh.length === 0) {
            return;
        }
        this.#failure = null;
        const newest = fresh.at(-1);
        this.#newestUs = newest.arrivalUs;
        this.#lostByPeer = newest.lost;
        this.#meter.addBytes(fresh.reduce((sum, picture) => sum + recordBytes + picture.data.length, 0));
        this.#decoder.decode(fresh);
    }

    setState({state, text}) {
        this.#state = String(state);
        this.#text = typeof text === 'string' ? text : '';
    }

    // `words` are the peer's, if it refused the request.
    fetchEnded(words) {
        this.pause();
        this.#failure = words === '' ? null : {state: 'failed', text: words};
    }

    // Nothing comes until the next fetch.
    pause() {
        this.#decoder.reset();
        this.#newestUs = 0;
    }

    close() {
        this.#decoder.close();
        this.#newest?.frame.close();
        this.#newest = null;
    }

    snapshot() {
        if (this.#drawnAt === -Infinity) {
            return;
        }
        this.#canvas.toBlob(blob => {
            const url = URL.createObjectURL(blob);
            download(url, snapshotName(this.#camera.name));
            setTimeout(() => URL.revokeObjectURL(url), 10_000);
        }, 'image/png');
    }

    record() {
        if (!this.#buttons.record.disabled) {
            void this.#request('record', {on: this.#camera.recording === null});
        }
    }

    hide() {
        this.#onHide();
    }

    toggleSettings() {
        this.#settings.hidden = !this.#settings.hidden;
        this.#buttons.settings.setAttribute('aria-expanded', String(!this.#settings.hidden));
    }

    toggleFullScreen() {
        const change =
            document.fullscreenElement ? document.exitFullscreen() : this.#stage.requestFullscreen();
        change.catch(() => this.#say('The browser allows no full screen here.'));
    }

    // Without those at the beginning of a fetch that the one before has brought.
    #withoutKnown(pictures) {
        if (!this.#isJoining) {
            return pictures;
        }
        const isKnown = ({arrivalUs}) => arrivalUs <= this.#newestUs && arrivalUs > this.#newestUs - joinUs;
        const first = pictures.findIndex(picture => !isKnown(picture));
        this.#isJoining = first < 0;
        return this.#isJoining ? [] : pictures.slice(first);
    }

    #take(frame, record) {
        if (this.#newest) {
            this.#newest.frame.close();
        } else {
            requestAnimationFrame(() => this.#draw());
        }
        this.#newest = {frame, record};
    }

    #draw() {
        if (!this.#newest) {
            return;
        }
        const {frame, record} = this.#newest;
        this.#newest = null;
        const {displayWidth: width, displayHeight: height} = frame;
        if (this.#canvas.width !== width || this.#canvas.height !== height) {
            this.#canvas.width = width;
            this.#canvas.height = height;
            this.#stage.style.aspectRatio = `${width} / ${height}`;
        }
        this.#context.drawImage(frame, 0, 0);
        frame.close();
        // Those from before the request are old, but not late.
        const isOld = record.arrivalUs / 1000 < this.#fetchedAt;
        this.#meter.addPicture(isOld ? null : latencyMs(record, Date.now(), this.#camera.stats));
        this.#drawnAt = performance.now();
        if (this.#shown.state === 'connecting' || this.#shown.state === 'waiting') {
            this.showState(this.#drawnAt, '');
        }
    }

    #cannotDecode() {
        this.#canDecode = false;
        this.#failure = {state: 'failed', text: 'This browser cannot decode the video of this camera.'};
    }

    // The peer asks the host again once nobody has viewed the camera for a moment.
    #tryAgain() {
        this.pause();
        this.#failure = null;
        this.#canDecode = true;
        this.#restUntil = performance.now() + restMs;
        this.setState({state: 'connecting'});
        this.element.focus();
        this.#onChange();
    }

    // Returns whether the peer did it.
    async #request(name, what) {
        try {
            const answer = await post(name, {camera: this.#camera.id, ...what});
            this.#say('');
            if (name === 'format') {
                this.#format = what;
            }
            if (typeof answer.file === 'string' && answer.file !== '') {
                this.#lastFile = answer.file;
            }
            return true;
        } catch (error) {
            this.#say(error.message);
            return false;
        }
    }

    #say(text) {
        this.#message.hidden = text === '';
        setText(this.#message, text);
    }

    #showRecording(recording) {
        setText(this.#buttons.record, recording ? 'Stop recording' : 'Record');
        if (recording) {
            this.#lastFile = recording.file;
            this.#recorded.replaceChildren(
                make('span', {class: 'dot', 'aria-hidden': 'true'}),
                `Recording ${recording.file}: ${duration(recording.seconds)}, ${byteCount(recording.bytes)}`);
            this.#recorded.hidden = false;
        } else if (this.#lastFile && this.#recorded.querySelector('a')?.textContent !== this.#lastFile) {
            const address = `recording/${encodeURIComponent(this.#lastFile)}`;
            const link = make('a', {href: address, download: this.#lastFile}, this.#lastFile);
            this.#recorded.replaceChildren('Recorded: ', link);
            this.#recorded.hidden = false;
        }
    }
}
