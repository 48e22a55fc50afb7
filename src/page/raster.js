// @ts-check
// Traces drawn into pixels of our own: for panes with many of them, where the canvas' lines cost too much. No DOM.

/**
 * @typedef {{pixels: Uint32Array, width: number, height: number}} Raster
 * @typedef {import("./strips.js").Columns} Columns
 */

/**
 * @param {Raster} raster
 * @param {number} x
 * @param {number} top
 * @param {number} bottom
 * @param {number} color
 */
function bar({ pixels, width, height }, x, top, bottom, color) {
    if (x < 0 || x >= width) return;
    const first = Math.max(0, Math.min(top, bottom));
    const last = Math.min(height - 1, Math.max(top, bottom));
    for (let at = first * width + x, end = last * width + x; at <= end; at += width) pixels[at] = color;
}

/**
 * @param {Raster} raster
 * @param {Columns} columns
 * @param {(value: number) => number} yOf pixels
 * @param {boolean} steps
 * @param {number} color as the pixels hold it
 */
export function rasterTrace(raster, columns, yOf, steps, color) {
    let beforeX = 0;
    let beforeY = 0;
    let joined = false;
    for (let i = 0; i < columns.count; ++i) {
        const x = Math.floor(columns.x[i]);
        const y = Math.round(yOf(columns.last[i]));
        if (joined && !columns.broken[i]) {
            const first = Math.max(beforeX + 1, 0);
            const last = Math.min(x, raster.width);
            if (steps) {
                for (let at = first; at < last; ++at) bar(raster, at, beforeY, beforeY, color);
                bar(raster, x, beforeY, y, color);
            } else {
                const slope = (y - beforeY) / Math.max(x - beforeX, 1);
                for (let at = first; at <= last; ++at) {
                    bar(raster, at, Math.round(beforeY + slope * (at - 1 - beforeX)), Math.round(beforeY + slope * (at - beforeX)), color);
                }
            }
        }
        bar(raster, x, Math.round(yOf(columns.greatest[i])), Math.round(yOf(columns.least[i])), color);
        beforeX = x;
        beforeY = y;
        joined = true;
    }
}

/** @param {string} color #rrggbb @returns {number} as a Uint32Array over RGBA bytes holds it */
export function pixelOf(color) {
    const number = parseInt(color.slice(1), 16);
    return (0xff000000 | ((number & 0xff) << 16) | (number & 0xff00) | (number >> 16)) >>> 0;
}
