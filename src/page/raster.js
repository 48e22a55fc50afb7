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
    const first = top < 0 ? 0 : top;
    const last = bottom >= height ? height - 1 : bottom;
    for (let at = first * width + x, end = last * width + x; at <= end; at += width) pixels[at] = color;
}

/**
 * A value v lies `zero` - v * `factor` pixels below the upper edge.
 * @param {Raster} raster
 * @param {Columns} columns
 * @param {number} zero
 * @param {number} factor
 * @param {boolean} steps
 * @param {number} color as the pixels hold it
 */
export function rasterTrace(raster, columns, zero, factor, steps, color) {
    let beforeX = 0;
    let beforeY = 0;
    let joined = false;
    for (let i = 0; i < columns.count; ++i) {
        const x = Math.floor(columns.x[i]);
        const y = Math.round(zero - columns.last[i] * factor);
        let top = Math.round(zero - columns.greatest[i] * factor);
        let bottom = Math.round(zero - columns.least[i] * factor);
        if (joined && !columns.broken[i]) {
            const slope = steps ? 0 : (y - beforeY) / Math.max(x - beforeX, 1);
            let from = beforeY;
            for (let at = beforeX + 1; at < x; ++at) {
                const to = Math.round(beforeY + slope * (at - beforeX));
                bar(raster, at, from < to ? from : to, from < to ? to : from, color);
                from = to;
            }
            // The last piece of the way lies in the column of the value.
            if (from < top) top = from;
            if (from > bottom) bottom = from;
        }
        bar(raster, x, top, bottom, color);
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
