// The records of a video stream: their length, their type, and the fields of a picture.

const greatestRecord = 16 * 1024 * 1024;
const pictureHeader = 24;  // from the type to the first byte of H.264

export const pictureType = 1;
export const stateType = 2;

// Joins pieces of a stream to records. A record that is longer than any picture ends the stream by an
// exception.
export class RecordReader {
    #pieces = [];
    #size = 0;

    // The complete records, now that this piece (a Uint8Array) has come.
    add(piece) {
        this.#pieces.push(piece);
        this.#size += piece.length;
        const records = [];
        for (;;) {
            if (this.#size < 4) {
                return records;
            }
            const length = view(this.#front(4)).getUint32(0, true);
            if (length === 0 || length > greatestRecord) {
                throw new Error(`a record of ${length} bytes`);
            }
            if (this.#size < 4 + length) {
                return records;
            }
            const bytes = this.#front(4 + length);
            this.#pieces[0] = this.#pieces[0].subarray(4 + length);
            this.#size -= 4 + length;
            const record = parse(bytes.subarray(4, 4 + length));
            if (record) {
                records.push(record);
            }
        }
    }

    // The first piece, after it was made at least so long.
    #front(length) {
        if (this.#pieces[0].length < length) {
            const joined = new Uint8Array(this.#size);
            let at = 0;
            for (const piece of this.#pieces) {
                joined.set(piece, at);
                at += piece.length;
            }
            this.#pieces = [joined];
        }
        return this.#pieces[0];
    }
}

function view(bytes) {
    return new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
}

// Returns null for a type that this page does not know.
function parse(bytes) {
    const fields = view(bytes);
    switch (bytes[0]) {
        case pictureType:
            if (bytes.length <= pictureHeader) {
                throw new Error('a picture without data');
            }
            return {
                type: pictureType,
                isKey: (bytes[1] & 1) !== 0,
                index: fields.getUint16(2, true),  // of the camera in the request
                captureUs: Number(fields.getBigUint64(4, true)),
                arrivalUs: Number(fields.getBigUint64(12, true)),
                lost: fields.getUint32(20, true),
                data: bytes.subarray(pictureHeader),
            };
        case stateType:
            return {type: stateType, ...JSON.parse(new TextDecoder().decode(bytes.subarray(1)))};
        default:
            return null;
    }
}
