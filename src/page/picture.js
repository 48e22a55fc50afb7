// @ts-check
// The picture of a curve or map: values over the points of its axes, with the operating point moving on it.

import { placeOn } from "./grid.js";
import { fittingRange, roundStep, ticks, tickText } from "./scales.js";
import { make } from "./dom.js";

/**
 * @typedef {{x: number[], y: number[], value(column: number, row: number): number,
 *            selected: {left: number, right: number, top: number, bottom: number} | null,
 *            trail: {x: number, y: number}[], theme: import("./plot.js").Theme}} Surface
 */

const HEIGHT = 170;
const LEFT = 46;
const BOTTOM = 18;
const RAMP = [[68, 1, 84], [59, 82, 139], [33, 145, 140], [94, 201, 98], [253, 231, 37]];

/** @param {number} part @returns {number[]} dark for the least: the order is seen without colours, too */
function rampAt(part) {
    const place = Math.min(Math.max(part, 0), 1) * (RAMP.length - 1);
    const low = Math.min(Math.floor(place), RAMP.length - 2);
    return RAMP[low].map((one, i) => one + (RAMP[low + 1][i] - one) * (place - low));
}

/** @param {Surface} surface @param {number} x place on the axis @param {number} y */
export function valueBetween(surface, x, y) {
    const column = Math.min(Math.floor(x), surface.x.length - 1);
    const row = Math.min(Math.floor(y), Math.max(surface.y.length - 1, 0));
    const right = Math.min(column + 1, surface.x.length - 1);
    const below = Math.min(row + 1, Math.max(surface.y.length - 1, 0));
    const upper = surface.value(column, row) * (1 - x + column) + surface.value(right, row) * (x - column);
    const lower = surface.value(column, below) * (1 - x + column) + surface.value(right, below) * (x - column);
    return upper * (1 - y + row) + lower * (y - row);
}

export class Picture {
    constructor() {
        this.canvas = make("canvas", { role: "img", class: "picture" });
        this.context = /** @type {CanvasRenderingContext2D} */ (this.canvas.getContext("2d", { alpha: false }));
        /** @type {ImageData | null} */
        this.image = null;
        this.key = "";
    }

    /** The values are others than before. */
    forget() {
        this.key = "";
    }

    /** @param {Surface} surface */
    draw(surface) {
        const ratio = window.devicePixelRatio || 1;
        const width = this.canvas.parentElement?.clientWidth ?? 0;
        if (width < 80 || surface.x.length === 0) return;
        const size = [Math.round(width * ratio), Math.round(HEIGHT * ratio)];
        if (this.canvas.width !== size[0] || this.canvas.height !== size[1]) {
            [this.canvas.width, this.canvas.height] = size;
            this.key = "";
        }
        this.canvas.style.width = `${width}px`;
        this.canvas.style.height = `${HEIGHT}px`;
        const { context } = this;
        context.setTransform(1, 0, 0, 1, 0, 0);
        context.fillStyle = surface.theme.background;
        context.fillRect(0, 0, size[0], size[1]);
        if (surface.y.length > 1) this.drawMap(surface, width, ratio);
        else this.drawCurve(surface, width, ratio);
    }

    /** @param {number[]} points @param {number} from @param {number} to @returns {(at: number) => number} */
    toPixels(points, from, to) {
        const low = Math.min(...points);
        const size = Math.max(...points) - low || 1;
        return (at) => from + ((at - low) / size) * (to - from);
    }

    /** @param {Surface} surface @param {number} width @param {number} ratio */
    drawMap(surface, width, ratio) {
        const { context } = this;
        const toX = this.toPixels(surface.x, LEFT, width - 8);
        const toY = this.toPixels(surface.y, 6, HEIGHT - BOTTOM);
        const area = { left: Math.round(LEFT * ratio), top: Math.round(6 * ratio), width: Math.round((width - 8 - LEFT) * ratio), height: Math.round((HEIGHT - BOTTOM - 6) * ratio) };
        if (this.key === "" || !this.image) this.image = this.makeImage(surface, area);
        this.key = "made";
        context.putImageData(this.image, area.left, area.top);
        context.setTransform(ratio, 0, 0, ratio, 0, 0);
        this.drawAxes(surface, toX, width);
        context.textAlign = "right";
        context.textBaseline = "middle";
        let before = -20;
        for (const y of surface.y) {
            if (Math.abs(toY(y) - before) < 13) continue;
            before = toY(y);
            context.fillText(tickText(y, Math.abs(y) >= 100 ? 1 : 0.1), LEFT - 4, Math.min(Math.max(before, 8), HEIGHT - BOTTOM - 4));
        }
        context.fillStyle = "rgb(255 255 255 / 55%)";
        for (const x of surface.x) for (const y of surface.y) context.fillRect(toX(x) - 1, toY(y) - 1, 2, 2);
        if (surface.selected) {
            const { left, right, top, bottom } = surface.selected;
            const [x0, x1, y0, y1] = [toX(surface.x[left]), toX(surface.x[right]), toY(surface.y[top]), toY(surface.y[bottom])];
            context.strokeStyle = "#ffffff";
            context.lineWidth = 2;
            context.strokeRect(x0 - 4, y0 - 4, x1 - x0 + 8, y1 - y0 + 8);
        }
        const clamp = (/** @type {number} */ at, /** @type {number[]} */ points) => Math.min(Math.max(at, Math.min(...points)), Math.max(...points));
        this.drawPoint(surface.trail.map((one) => ({ x: toX(clamp(one.x, surface.x)), y: toY(clamp(one.y, surface.y)) })));
    }

    /** @param {Surface} surface @param {{width: number, height: number}} area */
    makeImage(surface, area) {
        const image = this.context.createImageData(area.width, area.height);
        let low = Infinity;
        let high = -Infinity;
        for (let column = 0; column < surface.x.length; ++column) {
            for (let row = 0; row < surface.y.length; ++row) {
                low = Math.min(low, surface.value(column, row));
                high = Math.max(high, surface.value(column, row));
            }
        }
        const at = (/** @type {number[]} */ points, /** @type {number} */ part) => placeOn(points, points[0] + part * (points[points.length - 1] - points[0]));
        const columns = Array.from({ length: area.width }, (_none, i) => at(surface.x, i / (area.width - 1)));
        for (let line = 0; line < area.height; ++line) {
            const y = at(surface.y, line / (area.height - 1));
            for (let i = 0; i < area.width; ++i) {
                const color = rampAt((valueBetween(surface, columns[i], y) - low) / (high - low || 1));
                image.data.set([color[0], color[1], color[2], 255], 4 * (line * area.width + i));
            }
        }
        return image;
    }

    /** @param {Surface} surface @param {number} width @param {number} ratio */
    drawCurve(surface, width, ratio) {
        const { context } = this;
        context.setTransform(ratio, 0, 0, ratio, 0, 0);
        const values = surface.x.map((_x, column) => surface.value(column, 0));
        const range = fittingRange(Math.min(...values), Math.max(...values), null);
        const toX = this.toPixels(surface.x, LEFT, width - 8);
        const toY = (/** @type {number} */ value) => HEIGHT - BOTTOM - ((value - range.low) / (range.high - range.low)) * (HEIGHT - BOTTOM - 6);
        context.font = "11px system-ui, sans-serif";
        context.textAlign = "right";
        context.textBaseline = "middle";
        const step = roundStep(range.high - range.low, 5);
        for (const tick of ticks(range.low, range.high, step)) {
            context.fillStyle = surface.theme.grid;
            context.fillRect(LEFT, Math.round(toY(tick)), width - 8 - LEFT, 1);
            context.fillStyle = surface.theme.text;
            context.fillText(tickText(tick, step), LEFT - 4, Math.min(Math.max(toY(tick), 7), HEIGHT - BOTTOM - 2));
        }
        this.drawAxes(surface, toX, width);
        context.strokeStyle = context.fillStyle = surface.theme.palette[0];
        context.lineWidth = 1.5;
        context.beginPath();
        surface.x.forEach((x, column) => context.lineTo(toX(x), toY(values[column])));
        context.stroke();
        surface.x.forEach((x, column) => {
            const chosen = surface.selected && column >= surface.selected.left && column <= surface.selected.right ? 5 : 3;
            context.fillRect(toX(x) - chosen, toY(values[column]) - chosen, 2 * chosen, 2 * chosen);
        });
        this.drawPoint(surface.trail.map((one) => {
            const place = placeOn(surface.x, one.x);
            const x = Math.min(Math.max(one.x, surface.x[0]), surface.x[surface.x.length - 1]);
            return { x: toX(x), y: toY(valueBetween(surface, place, 0)) };
        }), surface.theme.text, surface.theme.background);
    }

    /** @param {Surface} surface @param {(at: number) => number} toX @param {number} width */
    drawAxes(surface, toX, width) {
        const { context } = this;
        context.font = "11px system-ui, sans-serif";
        context.fillStyle = surface.theme.text;
        context.textAlign = "center";
        context.textBaseline = "middle";
        let free = LEFT;
        for (const x of surface.x) {
            const text = tickText(x, Math.abs(x) >= 100 ? 1 : 0.1);
            const half = context.measureText(text).width / 2;
            const at = Math.min(toX(x), width - half - 2);
            if (at - half < free) continue;
            context.fillText(text, at, HEIGHT - 7);
            free = at + half + 6;
        }
    }

    /** @param {{x: number, y: number}[]} places the newest last @param {string} [color] @param {string} [edge] */
    drawPoint(places, color = "#ffffff", edge = "#000000") {
        const { context } = this;
        const now = places.at(-1);
        if (!now || now.x !== now.x || now.y !== now.y) return;
        context.strokeStyle = color;
        context.lineWidth = 1;
        context.beginPath();
        for (const { x, y } of places) context.lineTo(x, y);
        context.stroke();
        for (const [radius, style] of /** @type {[number, string][]} */ ([[7, edge], [5.5, color], [2, edge]])) {
            context.fillStyle = style;
            context.beginPath();
            context.arc(now.x, now.y, radius, 0, 7);
            context.fill();
        }
    }
}
