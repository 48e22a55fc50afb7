// @ts-check
// Requests to the server of this page.

import { parseJson } from "./text.js";

/** Why a request failed, in the words of the server. */
export class ApiError extends Error {
    /**
     * @param {number} status 0: the server was not reached
     * @param {{code?: string, message?: string, hint?: string, name?: string}} error
     */
    constructor(status, error) {
        super(error.message ?? `the server answered with ${status}`);
        this.status = status;
        this.code = error.code ?? "";
        this.hint = error.hint ?? "";
        this.object = error.name ?? "";
    }

    get text() {
        return this.hint ? `${this.message} (${this.hint})` : this.message;
    }
}

/** @param {string} name */
export const encode = encodeURIComponent;

/**
 * @param {string} method
 * @param {string} path
 * @param {any} [body] sent as JSON; a text as it is
 * @param {{signal?: AbortSignal}} [options]
 * @returns {Promise<Response>} of a request that succeeded
 */
export async function request(method, path, body, options = {}) {
    /** @type {RequestInit} */
    const init = { method, credentials: "same-origin", cache: "no-cache", ...options };
    if (body !== undefined) {
        init.body = typeof body === "string" ? body : JSON.stringify(body);
        init.headers = { "Content-Type": "application/json" };
    }
    let response;
    try {
        response = await fetch(path, init);
    } catch (error) {
        if (/** @type {Error} */ (error).name === "AbortError") throw error;
        throw new ApiError(0, { code: "unreachable", message: "the server does not answer" });
    }
    if (response.ok) return response;
    const text = await response.text();
    let told = /** @type {any} */ ({});
    try {
        told = parseJson(text);
    } catch {
        // Not of this server: the status has to do.
    }
    // A failed write tells its values all the same.
    if (response.status === 422 && !told.error?.message) throw new FailedWrite(told);
    if (response.status === 422 && told.name !== undefined) throw new FailedWrite({ values: [told] });
    throw new ApiError(response.status, told.error ?? {});
}

/** A write of which at least one value failed; `values` as the server told. */
export class FailedWrite extends Error {
    /** @param {any} told */
    constructor(told) {
        super("not all was written");
        this.values = told.values ?? [];
    }
}

/**
 * @param {string} path
 * @returns {Promise<any>}
 */
export async function getJson(path) {
    return parseJson(await (await request("GET", path)).text());
}

/**
 * @param {string} method
 * @param {string} path
 * @param {any} [body]
 * @returns {Promise<any>}
 */
export async function sendJson(method, path, body) {
    const text = await (await request(method, path, body)).text();
    return text ? parseJson(text) : {};
}

/**
 * Writes values as one action. Each comes back with `value` or `error`, those that failed, too.
 * @param {string} ecu
 * @param {{name: string, value: any}[]} values
 * @returns {Promise<any[]>}
 */
export async function writeValues(ecu, values) {
    try {
        return (await sendJson("POST", `/v1/ecus/${encode(ecu)}/values/write`, { values })).values;
    } catch (error) {
        if (error instanceof FailedWrite) return error.values;
        throw error;
    }
}

/** Exchanges the token of the address for a cookie and takes it out of the address. */
export async function login() {
    const token = new URLSearchParams(location.hash.slice(1)).get("token");
    if (!token) return;
    history.replaceState(null, "", location.pathname + location.search);
    await sendJson("POST", "/v1/login", { token });
}

/** @param {unknown} error */
export function reason(error) {
    return error instanceof ApiError ? error.text : String(/** @type {any} */ (error)?.message ?? error);
}
