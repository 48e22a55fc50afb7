// @ts-check
// Undo and redo of what this page wrote: one step for each action, whatever it changed. No DOM.

/** @typedef {{name: string, before: any, after: any}} Change */
/** @typedef {{label: string, changes: Change[]}} Step */

const MOST_STEPS = 500;

export class History {
    constructor() {
        /** @type {Step[]} */
        this.done = [];
        /** @type {Step[]} */
        this.undone = [];
    }

    /**
     * @param {string} label
     * @param {Change[]} changes those that the ECU took
     */
    add(label, changes) {
        const real = changes.filter((change) => change.before !== change.after);
        if (real.length === 0) return;
        this.done.push({ label, changes: real });
        if (this.done.length > MOST_STEPS) this.done.shift();
        this.undone = [];
    }

    /**
     * What has to be written for it. The step moves when `settle` is told of it, so that nothing is lost when the ECU refuses.
     * @param {"undo" | "redo"} way
     * @returns {{step: Step, writes: {name: string, value: any}[]} | null}
     */
    plan(way) {
        const step = (way === "undo" ? this.done : this.undone).at(-1);
        if (!step) return null;
        const changes = way === "undo" ? [...step.changes].reverse() : step.changes;
        return { step, writes: changes.map(({ name, before, after }) => ({ name, value: way === "undo" ? before : after })) };
    }

    /**
     * @param {"undo" | "redo"} way
     * @param {Step} step
     */
    settle(way, step) {
        const [from, to] = way === "undo" ? [this.done, this.undone] : [this.undone, this.done];
        if (from.at(-1) !== step) return;
        from.pop();
        to.push(step);
    }
}
