// @ts-check
// Texts of others, made fit to be shown; numbers as texts. No DOM.

const HIDDEN =
    /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff\ufff9-\ufffb]|\p{Cs}|[\u{e0000}-\u{e007f}]/gu;

/**
 * The text with every character that hides or turns others round replaced by its number in marks.
 * @param {unknown} text
 * @returns {string}
 */
export function plain(text) {
    return String(text ?? "").replace(HIDDEN, (one) => {
        const code = /** @type {number} */ (one.codePointAt(0));
        return `⟦${code.toString(16).toUpperCase().padStart(4, "0")}⟧`;
    });
}

/**
 * For texts and attributes of an SVG file.
 * @param {unknown} text
 * @returns {string}
 */
export function escapeXml(text) {
    const names = { "&": "&amp;", "<": "&lt;", ">": "&gt;", '"': "&quot;", "'": "&apos;" };
    return plain(text).replace(/[&<>"']/g, (one) => names[/** @type {keyof names} */ (one)]);
}

/**
 * A number with at most so many significant digits, never in a form that reads as another number.
 * @param {number} value
 * @param {number} [digits]
 */
export function formatNumber(value, digits = 6) {
    if (Number.isNaN(value)) return "–";
    if (!Number.isFinite(value)) return value > 0 ? "∞" : "−∞";
    if (Number.isInteger(value) && Math.abs(value) < 1e15) return String(value);
    const size = Math.abs(value);
    if (size !== 0 && (size < 1e-4 || size >= 1e9)) return value.toExponential(Math.max(digits - 1, 0));
    return String(Number(value.toPrecision(digits)));
}

/**
 * @param {number} bytes
 */
export function formatBytes(bytes) {
    const units = ["B", "kB", "MB", "GB", "TB"];
    let place = 0;
    while (bytes >= 1000 && place + 1 < units.length) {
        bytes /= 1000;
        ++place;
    }
    return `${place === 0 ? bytes : bytes.toPrecision(3)} ${units[place]}`;
}

/**
 * Seconds as a length of time: 1.25 s, 3:05, 10:00:00.
 * @param {number} seconds
 * @param {number} [decimals]
 */
export function formatTime(seconds, decimals = 3) {
    if (!Number.isFinite(seconds)) return "–";
    const sign = seconds < 0 ? "−" : "";
    const scale = 10 ** decimals;
    const size = Math.round(Math.abs(seconds) * scale) / scale;
    if (size < 60) return `${sign}${size.toFixed(decimals)} s`;
    const hours = Math.floor(size / 3600);
    const minutes = Math.floor(size / 60) % 60;
    const rest = (size % 60).toFixed(decimals).padStart(decimals > 0 ? decimals + 3 : 2, "0");
    return hours > 0 ? `${sign}${hours}:${String(minutes).padStart(2, "0")}:${rest}` : `${sign}${minutes}:${rest}`;
}

/**
 * JSON whose integers beyond 2^53 keep all digits: they become texts.
 * @param {string} text
 * @returns {any}
 */
export function parseJson(text) {
    // @ts-ignore the third argument is newer than the types
    return JSON.parse(text, (_key, value, context) =>
        typeof value === "number" && Number.isInteger(value) && !Number.isSafeInteger(value) &&
        context && /^-?\d+$/.test(context.source) ? context.source : value);
}
