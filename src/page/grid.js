// @ts-check
// Selections in a table of numbers and what is done to them; where the operating point lies. No DOM.
// Cells are (column, row): column counts along x, row along y.

/** @typedef {{column: number, row: number}} Cell */
/** @typedef {{anchor: Cell, focus: Cell}} Selection */

/**
 * @param {Selection} selection
 */
export function boundsOf({ anchor, focus }) {
    return {
        left: Math.min(anchor.column, focus.column), right: Math.max(anchor.column, focus.column),
        top: Math.min(anchor.row, focus.row), bottom: Math.max(anchor.row, focus.row),
    };
}

/**
 * @param {Selection} selection
 * @returns {Cell[]}
 */
export function cellsOf(selection) {
    const { left, right, top, bottom } = boundsOf(selection);
    const cells = [];
    for (let row = top; row <= bottom; ++row) {
        for (let column = left; column <= right; ++column) cells.push({ column, row });
    }
    return cells;
}

/**
 * The selection after a key of movement; null when the key is none.
 * @param {Selection} selection
 * @param {{key: string, shiftKey: boolean, ctrlKey: boolean}} event
 * @param {number} columns
 * @param {number} rows
 * @returns {Selection | null}
 */
export function moved(selection, { key, shiftKey, ctrlKey }, columns, rows) {
    const { column, row } = selection.focus;
    const last = { column: columns - 1, row: rows - 1 };
    if (ctrlKey && key === "a") return { anchor: { column: 0, row: 0 }, focus: last };
    if (key === " " && ctrlKey) return { anchor: { column, row: 0 }, focus: { column, row: last.row } };
    if (key === " " && shiftKey) return { anchor: { column: 0, row }, focus: { column: last.column, row } };
    /** @type {Record<string, Cell>} */
    const steps = {
        ArrowLeft: { column: column - 1, row }, ArrowRight: { column: column + 1, row },
        ArrowUp: { column, row: row - 1 }, ArrowDown: { column, row: row + 1 },
        PageUp: { column, row: 0 }, PageDown: { column, row: last.row },
        Home: ctrlKey ? { column: 0, row: 0 } : { column: 0, row }, End: ctrlKey ? last : { column: last.column, row },
    };
    const to = steps[key];
    if (!to) return null;
    const focus = { column: Math.min(Math.max(to.column, 0), last.column), row: Math.min(Math.max(to.row, 0), last.row) };
    return { anchor: shiftKey ? selection.anchor : focus, focus };
}

/**
 * What was typed for a selection: "12" or "=12" sets, "+3" and "-=3" or "+-3" shift, "*1.1" multiplies, "/2" divides. A number
 * with a minus is a value, as it is read everywhere else.
 * @param {string} text
 * @returns {((value: number) => number) | null}
 */
export function operation(text) {
    const found = /^\s*(\+=?|-=|\*=?|\/=?|=)?\s*([+-]?(?:\d+[.,]?\d*|[.,]\d+)(?:[eE][+-]?\d+)?)\s*(%?)\s*$/.exec(text);
    if (!found) return null;
    let number = Number(found[2].replace(",", "."));
    const sign = (found[1] ?? "=")[0];
    if (found[3]) {
        if (sign === "+" || sign === "-") return (value) => value * (1 + (sign === "-" ? -number : number) / 100);
        if (sign === "=") return null;
        number /= 100;
    }
    if (sign === "/" && number === 0) return null;
    return {
        "=": () => number, "+": (/** @type {number} */ value) => value + number, "-": (/** @type {number} */ value) => value - number,
        "*": (/** @type {number} */ value) => value * number, "/": (/** @type {number} */ value) => value / number,
    }[sign] ?? null;
}

/**
 * Between the corners of the selection, linear over the points of the axes.
 * @param {Selection} selection
 * @param {(cell: Cell) => number} value
 * @param {number[]} x points
 * @param {number[]} y
 * @returns {Map<string, number>} by "column,row"
 */
export function interpolated(selection, value, x, y) {
    const { left, right, top, bottom } = boundsOf(selection);
    const part = (/** @type {number[]} */ points, /** @type {number} */ low, /** @type {number} */ high, /** @type {number} */ at) => {
        if (high === low) return 0;
        const size = points[high] - points[low];
        return size ? (points[at] - points[low]) / size : (at - low) / (high - low);
    };
    const corner = (/** @type {number} */ column, /** @type {number} */ row) => value({ column, row });
    const result = new Map();
    for (const { column, row } of cellsOf(selection)) {
        const u = part(x, left, right, column);
        const v = part(y, top, bottom, row);
        const upper = corner(left, top) * (1 - u) + corner(right, top) * u;
        const lower = corner(left, bottom) * (1 - u) + corner(right, bottom) * u;
        result.set(`${column},${row}`, upper * (1 - v) + lower * v);
    }
    return result;
}

/**
 * Lines and tabs, as spreadsheets give and take them.
 * @param {string} text
 * @returns {string[][]}
 */
export function parseCells(text) {
    const lines = text.replace(/\r/g, "").replace(/\n$/, "").split("\n");
    return lines.map((line) => line.split(line.includes("\t") ? "\t" : /[;]/).map((cell) => cell.trim()));
}

/**
 * Where a value lies between points that go up: a place that may be broken, within the ends.
 * @param {ArrayLike<number>} points
 * @param {number} at
 * @returns {number} NaN for a value that is none
 */
export function placeOn(points, at) {
    if (at !== at || points.length === 0) return NaN;
    if (points.length === 1 || at <= points[0]) return 0;
    for (let i = 0; i + 1 < points.length; ++i) {
        if (at < points[i + 1]) return i + (at - points[i]) / (points[i + 1] - points[i]);
    }
    return points.length - 1;
}
