// @ts-check
// Tables of numbers, undo, search and layouts.

import { near, same, test, throws } from "/test/check.js";
import { cellsOf, interpolated, moved, operation, parseCells, placeOn } from "/page/grid.js";
import { History } from "/page/history.js";
import { checkedLayout, isLayoutName } from "/page/layout.js";
import { valueBetween } from "/page/picture.js";
import { ObjectIndex } from "/page/search.js";
import { stepOf } from "/page/scalar.js";

test("what is typed for a selection", () => {
    const rows = /** @type {[string, number | null][]} */ ([["7", 7], ["-7", -7], ["=3,5", 3.5], ["+2", 12], ["-=2", 8], ["*1.5", 15], ["/4", 2.5], ["+5%", 10.5], ["-=50%", 5],
        ["*50%", 5], ["1e2", 100], ["/0", null], ["5%", null], ["1.2.3", null], ["", null], ["+-3", 7]]);
    for (const [text, expected] of rows) same(operation(text)?.(10) ?? null, expected, `${text}:`);
});

test("keys move and extend the selection within the table", () => {
    const at = (/** @type {number} */ column, /** @type {number} */ row) => ({ column, row });
    const key = (/** @type {string} */ name, ctrlKey = false, shiftKey = false) => ({ key: name, ctrlKey, shiftKey });
    const from = { anchor: at(1, 1), focus: at(1, 1) };
    same(moved(from, key("ArrowRight"), 3, 2)?.focus, at(2, 1));
    same(moved(from, key("ArrowDown"), 3, 2)?.focus, at(1, 1));
    same(moved(from, key("End", true, true), 3, 2), { anchor: at(1, 1), focus: at(2, 1) });
    same(cellsOf(/** @type {any} */ (moved(from, key("a", true), 3, 2))).length, 6);
    same(moved(from, key(" ", true), 3, 2), { anchor: at(1, 0), focus: at(1, 1) });
    same([moved(from, key(" "), 3, 2), moved(from, key("x"), 3, 2)], [null, null]);
});

test("interpolation follows the points of the axes, not the cells", () => {
    const values = [[0, 9, 9, 30], [9, 9, 9, 9], [60, 9, 9, 90]];
    const found = interpolated({ anchor: { column: 3, row: 2 }, focus: { column: 0, row: 0 } }, ({ column, row }) => values[row][column], [0, 10, 20, 100], [0, 1, 4]);
    for (const [cell, expected] of /** @type {[string, number][]} */ ([["0,0", 0], ["3,2", 90], ["1,0", 3], ["2,0", 6], ["0,1", 15], ["3,1", 45], ["1,1", 18]])) {
        near(/** @type {number} */ (found.get(cell)), expected, 1e-12, cell);
    }
});

test("the operating point lies between the points that surround it", () => {
    const points = [500, 750, 1000, 2000];
    same([400, 500, 875, 1500, 9999, NaN].map((at) => placeOn(points, at)), [0, 0, 1.5, 2.5, 3, NaN]);
    const surface = /** @type {any} */ ({ x: [0, 1, 2], y: [0, 1], value: (/** @type {number} */ column, /** @type {number} */ row) => 10 * column + 100 * row });
    same([valueBetween(surface, 1.5, 0.5), valueBetween(surface, 2, 1), valueBetween({ ...surface, y: [0] }, 0.25, 0)], [65, 120, 2.5]);
});

test("cells of a spreadsheet", () => {
    same(parseCells("1\t2,5\r\n3\t4\n"), [["1", "2,5"], ["3", "4"]]);
    same(parseCells("1;2"), [["1", "2"]]);
});

test("one action is one step back, in the opposite order", () => {
    const history = new History();
    history.add("nothing", [{ name: "a", before: 1, after: 1 }]);
    same(history.plan("undo"), null);
    history.add("fill", [{ name: "m[0]", before: 1, after: 5 }, { name: "m[1]", before: 2, after: 5 }]);
    const plan = /** @type {NonNullable<ReturnType<History["plan"]>>} */ (history.plan("undo"));
    same(plan.writes, [{ name: "m[1]", value: 2 }, { name: "m[0]", value: 1 }]);
    same(history.plan("undo")?.step.label, "fill", "refused, so still there:");
    history.settle("undo", plan.step);
    same([history.plan("undo"), history.plan("redo")?.writes.map((one) => one.value)], [null, [5, 5]]);
    history.add("other", [{ name: "a", before: 1, after: 2 }]);
    same(history.plan("redo"), null, "a new action ends what could be done again:");
});

test("search finds all words, names before descriptions, among 300,000 in a moment", () => {
    const index = new ObjectIndex("m\tspeed_wheel\trpm\tSpeed of a wheel\np\tcal_speed\trpm\tTarget\nm\tspeed\tkm/h\t\nM\tmap\tdeg\tOver SPEED and load\n");
    const names = (/** @type {string} */ query, kinds = "") => index.search(query, kinds).map((place) => index.at(place).name);
    same([names("speed"), names("SPEED load"), names("speed", "pM"), names("nothing"), names("").length], [["speed", "speed_wheel", "cal_speed", "map"], ["map"], ["cal_speed", "map"], [], 4]);
    same([index.find("map")?.unit, index.find("ma")], ["deg", null]);
    const many = new ObjectIndex(Array.from({ length: 300000 }, (_none, i) => `m\tsignal_${i}_x\trpm\tInvented number ${i}`).join("\n"));
    const begin = performance.now();
    same(many.search("number 29999").length, 13);
    same(many.search("signal").length, 300000);
    if (performance.now() - begin > 2000) throw new Error(`took ${performance.now() - begin} ms`);
});

test("raw steps", () => {
    const linear = { recordLayout: { type: "UWORD" }, conversion: { type: "LINEAR", coefficients: [-0.25, 3] } };
    const rows = /** @type {[any, number][]} */ ([[linear, 0.25], [{ ...linear, rawStep: 0.5 }, 0.5], [{ recordLayout: { type: "SBYTE" }, conversion: null }, 1],
        [{ recordLayout: { type: "FLOAT32_IEEE" }, format: "%8.3", conversion: { type: "IDENTICAL" } }, 0.001], [{ recordLayout: { type: "UBYTE" }, conversion: { type: "RAT_FUNC" } }, NaN]]);
    for (const [info, step] of rows) same(stepOf(info), step);
});

test("a layout of a stranger is checked", () => {
    const layout = checkedLayout({ schema: 1, panes: [{ signals: ["a", "a", 5, "x".repeat(2000)], own: "no", height: 99 }, null], parameters: ["p", {}], span: -1, more: 1 });
    same(layout, { schema: 1, panes: [{ signals: ["a"], own: [], height: 1 }, { signals: [], own: [], height: 1 }], parameters: ["p"], span: 10, recorded: [] });
    throws(() => checkedLayout({ schema: 2 }), /schema 2/);
    for (const none of [null, [], "x", {}]) throws(() => checkedLayout(none), /no layout/);
    same(["a-B_1", "", "a b", "../x", "x".repeat(65), "ä"].map(isLayoutName), [true, false, false, false, false, false]);
});
