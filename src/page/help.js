// @ts-check
// Settings of this browser, and the keys.

import { button, make } from "./dom.js";
import { setTheme, themeChoice } from "./theme.js";

const KEYS = [
    ["Anywhere", [["Ctrl+K or /", "search objects"], ["Ctrl+Enter", "measure, stop"], ["Ctrl+Shift+R", "record, stop recording"], ["m", "mark (can be changed above)"], ["Ctrl+Z, Ctrl+Y", "undo, redo a change of parameters"], ["?", "this page"]]],
    ["Objects", [["↑ ↓", "choose"], ["→ ←", "open, close a folder"], ["Enter", "into the chosen pane, or the parameters"], ["Shift+Enter", "into a new pane"]]],
    ["A plot that has the focus", [["← →", "earlier, later"], ["+ −", "zoom the time"], ["↑ ↓, i o", "move, zoom the scales"], ["f or End", "pause, follow"], ["h or Home", "fit all"], ["y", "scales that fit again"], ["a, b", "cursors"], [", .", "move the cursor, with Shift ten pixels"], ["Esc", "no cursors"]]],
    ["A table that has the focus", [["arrows, Shift+arrows", "move, select"], ["Ctrl+A, Ctrl+Space, Shift+Space", "all, column, row"], ["Space", "to the operating point"], ["a number, +3, *1.1, /2, +5%", "type, then Enter: for all selected cells (−3 is a value, -=3 takes 3 away)"], ["i", "interpolate between the corners"], ["Ctrl+C, Ctrl+V", "copy, paste cells"]]],
    ["Mouse", [["wheel", "zoom the time at the pointer; over a scale: that scale"], ["drag", "move; Shift+drag: zoom to that stretch"], ["click, Shift+click", "cursor A, cursor B"], ["double click", "fit"]]],
];

/**
 * @param {{markKey(): string, setMarkKey(key: string): void, onTheme(): void}} page
 */
export function makeHelp(page) {
    const key = make("input", { type: "text", size: "2", maxlength: "1", value: page.markKey(), "aria-label": "key of the marker", oninput: () => page.setMarkKey(key.value) });
    const theme = make("select", { "aria-label": "colours", onchange: () => setTheme(theme.value, page.onTheme) },
        ...["auto", "light", "dark"].map((value) => make("option", { value, text: value === "auto" ? "as the system" : value })));
    theme.value = themeChoice();
    const close = button("Close", () => dialog.close(), { class: "primary" });
    const tables = KEYS.map(([title, rows]) => make("section", {}, make("h2", { text: String(title) }),
        make("table", { class: "list" }, make("tbody", {}, .../** @type {string[][]} */ (rows).map(([name, what]) => make("tr", {}, make("th", { scope: "row", text: name }), make("td", { text: what })))))));
    const dialog = make("dialog", { "aria-label": "settings and keys" },
        make("div", { class: "group" }, make("label", {}, "Colours ", theme), make("label", {}, "Key of the marker (empty: none) ", key), close), make("div", { class: "keys" }, ...tables));
    document.body.append(dialog);
    return dialog;
}
