// @ts-check
// The binary stream of a measurement: pieces of bytes in, whole frames out. No DOM.

/**
 * @typedef {{kind: "event", data: any}} EventFrame
 * @typedef {{kind: "window", fromNs: number, toNs: number, records: number, last: Float64Array,
 *            least: Float32Array, greatest: Float32Array}} WindowFrame
 * @typedef {{kind: "alive"}} AliveFrame
 * @typedef {EventFrame | WindowFrame | AliveFrame} Frame
 */

const MOST_BYTES = 64 << 20;
const KIND_EVENT = 1;
const KIND_WINDOW = 2;

export class FrameParser {
    constructor() {
        /** @type {Uint8Array} */
        this.rest = new Uint8Array(0);
        this.decoder = new TextDecoder();
    }

    /**
     * All frames that are whole with these bytes. Throws on what no server sends.
     * @param {Uint8Array} bytes
     * @returns {Frame[]}
     */
    push(bytes) {
        let data = bytes;
        if (this.rest.length > 0) {
            data = new Uint8Array(this.rest.length + bytes.length);
            data.set(this.rest);
            data.set(bytes, this.rest.length);
        }
        const view = new DataView(data.buffer, data.byteOffset, data.byteLength);
        /** @type {Frame[]} */
        const frames = [];
        let at = 0;
        while (data.length - at >= 4) {
            const length = view.getUint32(at, true);
            if (length < 4 || length > MOST_BYTES) throw new Error(`a frame of ${length} bytes in the stream`);
            if (data.length - at - 4 < length) break;
            const frame = this.frame(data.subarray(at + 4, at + 4 + length));
            if (frame) frames.push(frame);
            at += 4 + length;
        }
        this.rest = data.slice(at);
        return frames;
    }

    /**
     * @param {Uint8Array} bytes
     * @returns {Frame | null} null: of a kind that came later than this page
     */
    frame(bytes) {
        const payload = bytes.subarray(4);
        if (bytes[0] === KIND_EVENT) return { kind: "event", data: JSON.parse(this.decoder.decode(payload)) };
        if (bytes[0] === KIND_WINDOW) return windowOf(payload);
        return bytes[0] === 3 ? { kind: "alive" } : null;
    }
}

/**
 * @param {Uint8Array} payload
 * @returns {WindowFrame}
 */
function windowOf(payload) {
    // Typed arrays need their own alignment.
    const buffer = payload.slice().buffer;
    const view = new DataView(buffer);
    const count = view.getUint32(20, true);
    if (buffer.byteLength < 24 + count * 16) throw new Error("a window of the stream is cut off");
    return {
        kind: "window",
        fromNs: view.getFloat64(0, true),
        toNs: view.getFloat64(8, true),
        records: view.getUint32(16, true),
        last: new Float64Array(buffer, 24, count),
        least: new Float32Array(buffer, 24 + 8 * count, count),
        greatest: new Float32Array(buffer, 24 + 12 * count, count),
    };
}
