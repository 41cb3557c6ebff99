// Virtual cameras, the host that lends them, and `zu-camera-peer view`, as processes.

import {execFileSync, spawn} from 'node:child_process';
import {existsSync, mkdtempSync, readFileSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import {fileURLToPath} from 'node:url';

import {until} from './browser.mjs';

const bin = process.env.ZU_BIN ?? fileURLToPath(new URL('../../build/release/bin/', import.meta.url));

export class Chain {
    #work = mkdtempSync(join(tmpdir(), 'zu-view-'));
    #socket = join(this.#work, 'socket');
    #name = `view-${process.pid}`;
    #cameras;
    #host = null;
    #peer = null;

    address = '';

    // Each camera is a text as zu-vcam --camera takes it.
    constructor(cameras) {
        this.#cameras = cameras.flatMap(camera => ['--camera', camera]);
    }

    async startHost() {
        this.#host = this.#spawn('zu-vcam', [
            '--name', this.#name, ...this.#cameras, '--', join(bin, 'zu-camera-host'), '--listen',
            this.#socket
        ]);
        await until(() => existsSync(this.#socket), 'the host listens');
    }

    // With the cameras, which end when their command has ended.
    async killHost() {
        const [pid] =
            readFileSync(`/proc/${this.#host.pid}/task/${this.#host.pid}/children`, 'utf8').split(' ');
        process.kill(Number(pid), 'SIGKILL');
        await ended(this.#host);
        this.#host = null;
    }

    async startPeer(...more) {
        this.#peer = this.#spawn('zu-camera-peer', ['--socket', this.#socket, 'view', ...more]);
        let printed = '';
        this.#peer.stdout.on('data', piece => printed += piece);
        await until(
            () => printed.includes('\n') || this.#peer.exitCode !== null, 'the peer prints its address');
        this.address = printed.trim();
    }

    // Injects a fault into a camera.
    fault(camera, fault) {
        execFileSync(join(bin, 'zu-vcam'), ['ctl', '--name', this.#name, String(camera), fault]);
    }

    async stop() {
        for (const process of [this.#peer, this.#host]) {
            process?.kill('SIGINT');
            await ended(process);
        }
        rmSync(this.#work, {recursive: true, force: true});
    }

    #spawn(program, words) {
        return spawn(join(bin, program), words, {cwd: this.#work, stdio: ['ignore', 'pipe', 'inherit']});
    }
}

async function ended(process) {
    if (process && process.exitCode === null && process.signalCode === null) {
        await new Promise(resolve => process.once('exit', resolve));
    }
}
