// What a decoder must know about an H.264 stream before it begins.

const spsType = 7;

// The sequence parameter set in a picture in Annex B form (a Uint8Array), or null.
export function findSps(data) {
    for (let i = 0; i + 3 < data.length; ++i) {
        if (data[i] !== 0 || data[i + 1] !== 0 || data[i + 2] !== 1) {
            continue;
        }
        const begin = i + 3;
        if ((data[begin] & 0x1f) !== spsType) {
            continue;
        }
        let end = begin + 1;
        while (end + 2 < data.length && !(data[end] === 0 && data[end + 1] === 0 && data[end + 2] <= 1)) {
            ++end;
        }
        return data.subarray(begin, end + 2 < data.length ? end : data.length);
    }
    return null;
}

// The name of the codec with profile, constraints and level, or null if the set is too short.
export function codecName(sps) {
    if (sps.length < 4) {
        return null;
    }
    return 'avc1.' + [...sps.subarray(1, 4)].map(byte => byte.toString(16).padStart(2, '0')).join('');
}
