// @ts-check
// Draws one pane on a canvas: scales, grid, traces, gaps, cursors. Knows no sources and no events of the page.

import { pixelOf, rasterTrace } from "./raster.js";
import { decimalsOf, roundStep, ticks, tickText, timeStep } from "./scales.js";
import { plain } from "./text.js";

/**
 * @typedef {import("./scales.js").Range} Range
 * @typedef {{columns: import("./strips.js").Columns, scale: Scale, tag: string, color: string, second: boolean,
 *            steps: boolean, faint: boolean, dots: boolean}} Trace
 * @typedef {{key: string, label: string, range: Range, texts: Map<number, string> | null, color: string | null}} Scale
 * @typedef {{background: string, text: string, grid: string, faint: string, outage: string, cursor: string, palette: string[]}} Theme
 * @typedef {{from: number, to: number, gutter: number, traces: Trace[], scales: Scale[], theme: Theme, message: string,
 *            happenings: import("./sources.js").Happening[], cursors: {a: number | null, b: number | null},
 *            band: {from: number, to: number} | null}} Picture
 */

export const SCALE_WIDTH = 58;
/** More traces than that are drawn by pixels. */
const MOST_LINES = 24;
const EDGE = 4;
/** Pixels of a window that is drawn as a box. */
const WIDE = 12;
const FONT = "11px system-ui, sans-serif";

/**
 * @param {CanvasRenderingContext2D} context
 * @param {number} width CSS pixels
 * @param {number} height
 * @param {number} ratio device pixels in one
 * @param {Picture} picture
 */
export function drawPane(context, width, height, ratio, picture) {
    const area = { left: picture.gutter, top: 0, width: width - picture.gutter, height };
    context.setTransform(1, 0, 0, 1, 0, 0);
    context.fillStyle = picture.theme.background;
    context.fillRect(0, 0, context.canvas.width, context.canvas.height);
    const device = { left: Math.round(area.left * ratio), width: Math.round(area.width * ratio), height: Math.round(height * ratio) };
    if (picture.traces.length > MOST_LINES) {
        drawRaster(context, device, ratio, picture);
    } else {
        drawGrid(context, device, ratio, picture);
        drawLines(context, device, ratio, picture);
    }
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    drawHappenings(context, area, picture);
    drawScales(context, area, picture);
    drawTags(context, area, ratio, picture);
    drawCursors(context, area, picture);
    if (picture.message) {
        context.fillStyle = picture.theme.text;
        context.font = "14px system-ui, sans-serif";
        context.textAlign = "center";
        context.fillText(picture.message, area.left + area.width / 2, height / 2, area.width - 16);
    }
}

/** @param {Scale} scale @param {number} height @param {number} [edge] free above and below @returns {(value: number) => number} */
export function yOf(scale, height, edge = EDGE) {
    const { low, high } = scale.range;
    const factor = (height - 2 * edge) / (high - low || 1);
    return (value) => height - edge - (value - low) * factor;
}

/** @param {Scale} scale @param {number} height CSS pixels */
function ticksOf(scale, height) {
    const { low, high } = scale.range;
    let step = roundStep(high - low, Math.max(2, Math.floor(height / 36)));
    if (scale.texts) step = Math.max(1, Math.ceil(step));
    return { step, list: ticks(low, high, step) };
}

/**
 * @typedef {{left: number, width: number, height: number}} Device
 * @param {CanvasRenderingContext2D} context
 * @param {Device} device
 * @param {number} ratio
 * @param {Picture} picture
 */
function drawGrid(context, device, ratio, picture) {
    const { across, up } = gridOf(device, ratio, picture);
    context.fillStyle = picture.theme.grid;
    for (const x of across) context.fillRect(device.left + x, 0, 1, device.height);
    for (const y of up) context.fillRect(device.left, y, device.width, 1);
}

/**
 * Device pixels of the lines of the grid.
 * @param {Device} device
 * @param {number} ratio
 * @param {Picture} picture
 */
function gridOf(device, ratio, picture) {
    const step = timeStep(picture.to - picture.from, Math.max(2, device.width / ratio / 110));
    const across = ticks(picture.from, picture.to, step).map((tick) => Math.round(((tick - picture.from) / (picture.to - picture.from)) * device.width));
    const scale = picture.scales[0];
    const height = device.height / ratio;
    const up = scale ? ticksOf(scale, height).list.map((tick) => Math.round(yOf(scale, height)(tick) * ratio)) : [];
    return { across, up };
}

/**
 * Lines of width 1 are cheap, wider ones are not: on fine screens each is drawn twice, a pixel apart.
 * @param {CanvasRenderingContext2D} context
 * @param {Device} device
 * @param {number} ratio
 * @param {Picture} picture
 */
function drawLines(context, device, ratio, picture) {
    context.save();
    context.beginPath();
    context.rect(device.left, 0, device.width, device.height);
    context.clip();
    context.lineWidth = 1;
    for (const trace of picture.traces) {
        context.strokeStyle = trace.faint ? picture.theme.faint : trace.color;
        context.setLineDash(trace.second ? [6 * ratio, 4 * ratio] : []);
        const path = pathOf(trace, device, EDGE * ratio);
        context.stroke(path);
        if (ratio > 1.25 || picture.traces.length <= 4) {
            context.translate(0, 1);
            context.stroke(path);
            context.translate(0, -1);
        }
    }
    context.restore();
}

/** @param {Trace} trace @param {Device} device @param {number} edge @returns {Path2D} */
function pathOf({ columns, scale, steps, dots }, device, edge) {
    const path = new Path2D();
    const limit = 20 * device.height;
    const place = yOf(scale, device.height, edge);
    const toY = (/** @type {number} */ value) => Math.min(Math.max(place(value), -limit), limit);
    let beforeY = 0;
    for (let i = 0; i < columns.count; ++i) {
        const x = device.left + columns.x[i];
        const y = toY(columns.last[i]);
        const isBroken = i === 0 || columns.broken[i];
        if (isBroken) path.moveTo(x, y);
        else if (steps) path.lineTo(x, beforeY);
        const top = toY(columns.greatest[i]);
        const bottom = toY(columns.least[i]);
        const first = isBroken ? y : beforeY;
        // A ramp from the value before to this one is no envelope; a peak beside it is.
        if (top < Math.min(first, y) - 0.7 || bottom > Math.max(first, y) + 0.7) {
            const length = x - device.left - columns.from[i];
            if (length > WIDE && bottom > top + 0.7) {
                // Where in a long window its peaks were is not known: they count for all of it.
                path.rect(x - length, top, length, bottom - top);
                path.moveTo(x, y);
            } else {
                path.lineTo(x, bottom);
                path.lineTo(x, top);
            }
        }
        path.lineTo(x, y);
        const isAlone = isBroken && (i + 1 === columns.count || columns.broken[i + 1]);
        if (dots || isAlone) {
            path.rect(x - 2, y - 2, 4, 4);
            path.moveTo(x, y);
        }
        beforeY = y;
    }
    return path;
}

/** @type {WeakMap<CanvasRenderingContext2D, ImageData>} */
const images = new WeakMap();

/** @param {CanvasRenderingContext2D} context @param {number} width @param {number} height */
function imageOf(context, width, height) {
    let image = images.get(context);
    if (!image || image.width !== width || image.height !== height) {
        image = context.createImageData(width, height);
        images.set(context, image);
    }
    return image;
}

/**
 * @param {CanvasRenderingContext2D} context
 * @param {Device} device
 * @param {number} ratio
 * @param {Picture} picture
 */
function drawRaster(context, device, ratio, picture) {
    // What the canvas has is not read back, which costs more than to draw the grid once more.
    const image = imageOf(context, device.width, device.height);
    const raster = { pixels: new Uint32Array(image.data.buffer), width: device.width, height: device.height };
    raster.pixels.fill(pixelOf(picture.theme.background));
    const { across, up } = gridOf(device, ratio, picture);
    const grid = pixelOf(picture.theme.grid);
    for (const x of across) for (let at = x; x >= 0 && x < device.width && at < raster.pixels.length; at += device.width) raster.pixels[at] = grid;
    for (const y of up) if (y >= 0 && y < device.height) raster.pixels.fill(grid, y * device.width, (y + 1) * device.width);
    for (const trace of picture.traces) {
        const color = pixelOf(trace.faint ? picture.theme.faint : trace.color);
        const toY = yOf(trace.scale, device.height, EDGE * ratio);
        rasterTrace(raster, trace.columns, toY(0), toY(0) - toY(1), trace.steps, color);
    }
    context.putImageData(image, device.left, 0);
}

/**
 * @typedef {{left: number, top: number, width: number, height: number}} Area
 * @param {CanvasRenderingContext2D} context
 * @param {Area} area
 * @param {Picture} picture
 */
function drawScales(context, area, picture) {
    context.font = FONT;
    context.textAlign = "right";
    context.textBaseline = "middle";
    context.fillStyle = picture.theme.background;
    context.fillRect(0, 0, area.left, area.height);
    const most = Math.max(1, Math.floor(picture.gutter / SCALE_WIDTH));
    picture.scales.slice(0, most).forEach((scale, place) => {
        const right = area.left - place * SCALE_WIDTH;
        const toY = yOf(scale, area.height);
        const { step, list } = ticksOf(scale, area.height);
        context.fillStyle = scale.color ?? picture.theme.text;
        for (const tick of list) {
            const y = toY(tick);
            if (y < 18 || y > area.height - 6) continue;
            const text = scale.texts ? plain(scale.texts.get(Math.round(tick)) ?? "") : tickText(tick, step);
            context.fillText(text, right - 5, y, SCALE_WIDTH - 7);
            context.fillRect(right - 3, Math.round(y), 3, 1);
        }
        context.fillText(plain(scale.label), right - 5, 8, SCALE_WIDTH - 7);
        context.fillStyle = picture.theme.grid;
        context.fillRect(right - 1, 0, 1, area.height);
    });
}

/**
 * The number of each trace at its right end, so that colour is not all that tells them apart.
 * @param {CanvasRenderingContext2D} context
 * @param {Area} area
 * @param {number} ratio
 * @param {Picture} picture
 */
function drawTags(context, area, ratio, picture) {
    if (picture.traces.length > MOST_LINES) return;
    context.font = `bold ${FONT}`;
    context.textAlign = "right";
    context.textBaseline = "middle";
    /** @type {number[]} */
    const taken = [];
    for (const trace of picture.traces) {
        let place = trace.columns.count - 1;
        const inside = (/** @type {number} */ i) => trace.columns.x[i] / ratio <= area.width + 1;
        while (place > 0 && !inside(place)) --place;
        if (place < 0) continue;
        const x = area.left + Math.min(Math.max(trace.columns.x[place] / ratio, 14), area.width - 3);
        let y = yOf(trace.scale, area.height)(trace.columns.last[place]);
        y = Math.min(Math.max(y, 8), area.height - 8);
        while (taken.some((one) => Math.abs(one - y) < 12) && y < area.height - 10) y += 12;
        taken.push(y);
        const width = context.measureText(trace.tag).width + 5;
        context.fillStyle = trace.faint ? picture.theme.faint : trace.color;
        context.fillRect(x - width, y - 7, width, 14);
        context.fillStyle = picture.theme.background;
        context.fillText(trace.tag, x - 2.5, y + 0.5);
    }
}

/**
 * @param {CanvasRenderingContext2D} context
 * @param {Area} area
 * @param {Picture} picture
 */
function drawHappenings(context, area, picture) {
    const scale = area.width / (picture.to - picture.from);
    context.save();
    context.beginPath();
    context.rect(area.left, 0, area.width, area.height);
    context.clip();
    for (const one of picture.happenings) {
        if (one.to < picture.from || one.from > picture.to) continue;
        const x = area.left + (one.from - picture.from) * scale;
        if (one.kind === "outage" || one.kind === "gap") {
            hatch(context, Math.max(x, area.left), Math.min(area.left + (one.to - picture.from) * scale, area.left + area.width), area.height, picture.theme.outage);
            continue;
        }
        context.strokeStyle = picture.theme.outage;
        context.lineWidth = 1;
        context.setLineDash(one.kind === "mark" ? [] : [2, 4]);
        context.beginPath();
        context.moveTo(Math.round(x) + 0.5, 0);
        context.lineTo(Math.round(x) + 0.5, area.height);
        context.stroke();
        context.setLineDash([]);
    }
    context.restore();
}

/**
 * @param {CanvasRenderingContext2D} context
 * @param {number} left
 * @param {number} right
 * @param {number} height
 * @param {string} color
 */
function hatch(context, left, right, height, color) {
    context.strokeStyle = color;
    context.lineWidth = 1;
    context.save();
    context.beginPath();
    context.rect(left, 0, Math.max(right - left, 2), height);
    context.clip();
    context.beginPath();
    for (let x = left - height; x < right + 1; x += 9) {
        context.moveTo(x, height);
        context.lineTo(x + height, 0);
    }
    context.stroke();
    context.restore();
}

/**
 * @param {CanvasRenderingContext2D} context
 * @param {Area} area
 * @param {Picture} picture
 */
function drawCursors(context, area, picture) {
    const scale = area.width / (picture.to - picture.from);
    const xOf = (/** @type {number} */ time) => area.left + (time - picture.from) * scale;
    if (picture.band) {
        context.fillStyle = picture.theme.cursor;
        context.globalAlpha = 0.15;
        const [first, last] = [xOf(picture.band.from), xOf(picture.band.to)].sort((a, b) => a - b);
        context.fillRect(first, 0, last - first, area.height);
        context.globalAlpha = 1;
    }
    context.font = `bold ${FONT}`;
    context.textBaseline = "middle";
    context.textAlign = "center";
    for (const [name, time] of /** @type {[string, number | null][]} */ ([["A", picture.cursors.a], ["B", picture.cursors.b]])) {
        if (time === null) continue;
        const x = Math.round(xOf(time));
        if (x < area.left || x > area.left + area.width) continue;
        context.fillStyle = picture.theme.cursor;
        context.fillRect(x, 0, 1, area.height);
        context.fillRect(x - 7, 0, 14, 14);
        context.fillStyle = picture.theme.background;
        context.fillText(name, x, 7.5);
    }
}

/** Digits that one pixel of a scale can tell apart. @param {Scale} scale @param {number} height */
export function digitsOf(scale, height) {
    return decimalsOf((scale.range.high - scale.range.low) / Math.max(height, 1));
}
