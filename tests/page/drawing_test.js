// @ts-check
// Streams and series become columns in which no peak is lost and no gap looks like a value.

import { near, same, test, throws } from "/test/check.js";
import { FrameParser } from "/page/frames.js";
import { LiveStore } from "/page/live_store.js";
import { rasterTrace } from "/page/raster.js";
import { fittingRange, ticks, tickText, timeStep, timeTickText } from "/page/scales.js";
import { parseSeries } from "/page/series.js";
import { Columns, columnsOf, valueAt } from "/page/strips.js";
import { TimeView } from "/page/view.js";

/** @param {number} kind @param {Uint8Array} payload */
function frame(kind, payload) {
    const bytes = new Uint8Array(8 + payload.length);
    new DataView(bytes.buffer).setUint32(0, payload.length + 4, true);
    bytes[4] = kind;
    bytes.set(payload, 8);
    return bytes;
}

/** @param {number} from @param {number} to @param {number[][]} values least, greatest, last of each signal */
function windowBytes(from, to, values) {
    const bytes = new ArrayBuffer(24 + 16 * values.length);
    const view = new DataView(bytes);
    view.setFloat64(0, from, true);
    view.setFloat64(8, to, true);
    view.setUint32(16, 5, true);
    view.setUint32(20, values.length, true);
    values.forEach(([least, greatest, last], i) => {
        view.setFloat64(24 + 8 * i, last, true);
        view.setFloat32(24 + 8 * values.length + 4 * i, least, true);
        view.setFloat32(24 + 12 * values.length + 4 * i, greatest, true);
    });
    return new Uint8Array(bytes);
}

test("frames come out whole, however they were cut", () => {
    const text = new TextEncoder().encode('{"event": "missed", "missed": 3}');
    const all = [frame(1, text), frame(3, new Uint8Array(0)), frame(9, text), frame(2, windowBytes(1e9, 2e9, [[-1, 8, 2 ** 33 + 1], [NaN, NaN, NaN]]))];
    const bytes = new Uint8Array(all.reduce((sum, one) => sum + one.length, 0));
    all.reduce((at, one) => (bytes.set(one, at), at + one.length), 0);
    for (const size of [1, 3, 7, 31, bytes.length]) {
        const parser = new FrameParser();
        const frames = [];
        for (let at = 0; at < bytes.length; at += size) frames.push(...parser.push(bytes.subarray(at, at + size)));
        same(frames.map((one) => one.kind), ["event", "alive", "window"], `cut by ${size}:`);
        const last = /** @type {any} */ (frames[2]);
        same([last.fromNs, last.toNs, last.records, last.least, last.greatest, last.last], [1e9, 2e9, 5, [-1, NaN], [8, NaN], [2 ** 33 + 1, NaN]]);
        same(/** @type {any} */ (frames[0]).data.missed, 3);
    }
    throws(() => new FrameParser().push(new Uint8Array([255, 255, 255, 255, 1])), /frame of 4294967295 bytes/);
    throws(() => new FrameParser().push(frame(2, windowBytes(0, 1, [[1, 1, 1]]).subarray(0, 30))), /cut off/);
});

/** @param {LiveStore} store @param {number} i @param {number[][]} values @param {number} [at] */
function append(store, i, values, at = i * 0.025) {
    const columns = (/** @type {number} */ place) => values.map((one) => one[place]);
    store.append(at, at + 0.024, { kind: "window", fromNs: 0, toNs: 0, records: 1, least: Float32Array.from(columns(0)), greatest: Float32Array.from(columns(1)), last: Float64Array.from(columns(2)) });
}

test("a peak of one window is seen hours later, at every zoom", () => {
    const store = new LiveStore();
    store.setSignals([{ name: "x", cycleNs: 1e6 }]);
    const count = 40000;
    for (let i = 0; i < count; ++i) append(store, i, [[0, i === 12345 ? 99 : 1, 0.5]]);
    for (const [from, to, width] of [[0, 1000, 300], [308, 309, 1000], [300, 320, 50], [0, 400, 10]]) {
        const columns = new Columns();
        columnsOf(store.strip("x", from, to, width), from, to, width, columns);
        same(columns.high, 99, `${from} to ${to} in ${width}:`);
        if (!(columns.count <= 4 * width + 8)) throw new Error(`${columns.count} columns for ${width} pixels`);
        for (let i = 1; i < columns.count; ++i) if (columns.broken[i]) throw new Error(`a gap at ${columns.x[i]} that was none`);
    }
    same(store.lastOf("x"), 0.5);
});

test("outages and silent lists are gaps; a slow list is none", () => {
    const store = new LiveStore();
    store.setSignals([{ name: "fast", cycleNs: 1e6 }, { name: "slow", cycleNs: 1e8 }, { name: "stops", cycleNs: 1e6 }]);
    for (let i = 0; i < 200; ++i) {
        const slow = i % 4 === 0 ? 3 : NaN;
        const stops = i > 60 && i < 120 ? NaN : 5;
        append(store, i, [[1, 2, 1], [slow, slow, slow], [stops, stops, stops]], i * 0.025 + (i >= 150 ? 2 : 0));
    }
    const gaps = (/** @type {string} */ name) => {
        const strip = store.strip(name, 0, 10, 1000);
        return Array.from(strip.time).filter((_time, i) => i > 0 && strip.broken[i]).map((time) => Math.round(time * 10) / 10);
    };
    same([gaps("fast"), gaps("slow"), gaps("stops")], [[5.8], [5.8], [3, 5.8]]);
    same(valueAt(store.strip("fast", 0, 10, 1000), 4.5), null, "in the outage:");
    same(valueAt(store.strip("fast", 0, 10, 1000), 2)?.last, 1);
});

test("columns and samples of a recording", () => {
    const bytes = new ArrayBuffer(32 + 16 + 56 + 16 + 40);
    const view = new DataView(bytes);
    [1, 2, 4, 0].forEach((one, i) => view.setUint32(4 * i, one, true));
    view.setFloat64(16, 0, true);
    view.setFloat64(24, 4e9, true);
    [7, 0, 4, 0].forEach((one, i) => view.setUint32(32 + 4 * i, one, true));
    [1, 0, 3, 4, 2, 0, 3, 9, 2, 0, 3, 5].forEach((one, i) => view.setFloat32(48 + 4 * i, one, true));
    [1, 0, 2, 3].forEach((one, i) => view.setUint8(96 + i, one));
    [8, 1, 2, 0].forEach((one, i) => view.setUint32(104 + 4 * i, one, true));
    [1e9, 3e9, 0.1, -7].forEach((one, i) => view.setFloat64(120 + 8 * i, one, true));
    [0, 1].forEach((one, i) => view.setUint8(152 + i, one));
    const { strips, to } = parseSeries(bytes);
    same([to, [...strips.keys()]], [4, [7, 8]]);
    const [columns, samples] = [strips.get(7), strips.get(8)].map((strip) => /** @type {import("/page/strips.js").Strip} */ (strip));
    same([columns.time, columns.last, columns.broken], [[0.5, 1.5, 2.5, 3.5], [2, NaN, 3, 5], [0, 0, 1, 1]]);
    same([valueAt(columns, 3.6), valueAt(columns, 1.6), valueAt(columns, 0.6)], [null, null, null], "the edge, the gap, before it:");
    same([samples.time, samples.last, samples.broken, samples.exact], [[1, 3], [0.1, -7], [0, 1], true]);
    throws(() => parseSeries(bytes.slice(0, 120)), /cut off/);
});

test("pixels of our own meet where the values do, and stop at gaps", () => {
    const draw = (/** @type {number[][]} */ rows, /** @type {boolean} */ steps) => {
        const columns = new Columns();
        for (const [x, least, greatest, last, broken] of rows) columns.add(x, x, least, greatest, last, broken);
        const raster = { pixels: new Uint32Array(60), width: 10, height: 6 };
        rasterTrace(raster, columns, 5, 1, steps, 1);
        return Array.from({ length: 6 }, (_none, y) => Array.from(raster.pixels.subarray(10 * y, 10 * y + 10)).map((one) => (one ? "#" : ".")).join(""));
    };
    same(draw([[0, 0, 0, 0, 1], [4, 4, 4, 4, 0], [8, 1, 3, 2, 1]], false), ["..........", "....#.....", "...##...#.", "..##....#.", ".##.....#.", "##........"]);
    same(draw([[0, 1, 1, 1, 1], [5, 4, 4, 4, 0], [9, 4, 4, 4, 0]], true), ["..........", ".....#####", ".....#....", ".....#....", "######....", ".........."]);
});

test("axes", () => {
    same(ticks(0, 1, 0.25), [0, 0.25, 0.5, 0.75, 1]);
    same([0.30000000000000004, -0.1, 0, 12345678, 2e-7].map((one) => tickText(one, 0.1)), ["0.3", "−0.1", "0.0", "1.234568e+7", "0.0"]);
    same([timeStep(36000, 8), timeStep(90, 6), timeStep(0.01, 5)], [7200, 30, 0.002]);
    same([timeTickText(36000, 7200, true), timeTickText(61.5, 0.5, true), timeTickText(-0.25, 0.05, false)], ["10:00:00", "1:01.5", "−0.25"]);
    for (const [least, greatest] of [[0, 500], [-3, -3], [1e-9, 2e-9], [-1e12, 1e12]]) {
        const range = fittingRange(least, greatest, null);
        if (!(range.low < least && range.high > greatest)) throw new Error(`${least} to ${greatest} lies on the edge of ${range.low} to ${range.high}`);
        same(fittingRange(least, greatest, range), range, "what fits stays:");
    }
});

test("the view follows until it is moved, and keeps what the pointer is on", () => {
    const view = new TimeView();
    view.follow(25);
    same([view.from, view.to], [15, 25]);
    view.zoom(0.5, 17);
    same([view.from, view.to, view.follows], [20, 25, true]);
    view.pan(-5);
    view.follow(99);
    view.zoom(2, 16);
    near(view.from, 14, 1e-9);
    near(view.to, 24, 1e-9);
    view.cursors = { a: 1, b: 1.5 };
    same(view.difference, { seconds: 0.5, hertz: 2 });
});
