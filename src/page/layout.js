// @ts-check
// The document of a layout: what is shown where. What comes from a file is checked, as it may have been written by anyone. No DOM.

export const SCHEMA = 1;
export const MOST_PANES = 12;
const MOST_SIGNALS = 256;
const MOST_PARAMETERS = 500;
const MOST_NAME = 1024;

/**
 * @typedef {{signals: string[], own: string[], height: number}} PaneLayout
 * @typedef {{schema: number, panes: PaneLayout[], parameters: string[], span: number, recorded?: string[]}} Layout
 */

/** @param {string} name */
export function isLayoutName(name) {
    return /^[A-Za-z0-9_-]{1,64}$/.test(name);
}

/**
 * @param {unknown} list
 * @param {number} most
 * @returns {string[]}
 */
function names(list, most) {
    if (!Array.isArray(list)) return [];
    const texts = list.filter((one) => typeof one === "string" && one.length > 0 && one.length <= MOST_NAME);
    return [...new Set(texts)].slice(0, most);
}

/**
 * @param {any} document
 * @returns {Layout} throws when it is none, or of a later schema
 */
export function checkedLayout(document) {
    if (typeof document !== "object" || document === null || !Number.isInteger(document.schema)) {
        throw new Error("this is no layout");
    }
    if (document.schema > SCHEMA) throw new Error(`the layout has schema ${document.schema}; this page knows ${SCHEMA}`);
    const panes = (Array.isArray(document.panes) ? document.panes : []).slice(0, MOST_PANES).map((/** @type {any} */ pane) => ({
        signals: names(pane?.signals, MOST_SIGNALS),
        own: names(pane?.own, MOST_SIGNALS),
        height: typeof pane?.height === "number" && pane.height >= 0.2 && pane.height <= 10 ? pane.height : 1,
    }));
    const span = typeof document.span === "number" && document.span > 0 && document.span < 1e7 ? document.span : 10;
    return { schema: SCHEMA, panes, parameters: names(document.parameters, MOST_PARAMETERS), span, recorded: names(document.recorded, 8) };
}
