// @ts-check
// A list of tests that runs in the browser; what failed stands on the page for the driver.

/** @type {[string, () => void | Promise<void>][]} */
const tests = [];

/** @param {string} name @param {() => void | Promise<void>} body */
export function test(name, body) {
    tests.push([name, body]);
}

/** @param {unknown} value */
const shown = (value) => JSON.stringify(value, (_key, one) => (typeof one === "number" && !Number.isFinite(one) ? String(one) : ArrayBuffer.isView(one) ? Array.from(/** @type {any} */ (one)) : one));

/** @param {unknown} value @param {unknown} expected @param {string} [where] */
export function same(value, expected, where = "") {
    if (shown(value) !== shown(expected)) throw new Error(`${where} ${shown(value)} instead of ${shown(expected)}`);
}

/** @param {number} value @param {number} expected @param {number} by @param {string} [where] */
export function near(value, expected, by, where = "") {
    if (!(Math.abs(value - expected) <= by)) throw new Error(`${where} ${value} instead of ${expected}`);
}

/** @param {() => void} body @param {RegExp} message */
export function throws(body, message) {
    try {
        body();
    } catch (error) {
        if (message.test(String(error))) return;
        throw error;
    }
    throw new Error(`nothing was thrown, ${message} was expected`);
}

export async function run() {
    const failed = [];
    for (const [name, body] of tests) {
        try {
            await body();
        } catch (error) {
            failed.push(`${name}: ${error}`);
        }
    }
    Object.assign(globalThis, { results: { count: tests.length, failed } });
}
