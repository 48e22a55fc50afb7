// @ts-check
// Search in the names and descriptions of all objects, fast enough for each key. No DOM.

/**
 * m measurement, p scalar parameter, c curve, M map, b block, t text, a axis, s structure
 * @typedef {"m" | "p" | "c" | "M" | "b" | "t" | "a" | "s"} Kind
 * @typedef {{kind: Kind, name: string, unit: string, description: string}} ObjectLine
 */

export class ObjectIndex {
    /** @param {string} text one object a line: kind, name, unit, description with tabs between */
    constructor(text) {
        this.lines = text.split("\n");
        if (this.lines.at(-1) === "") this.lines.pop();
        this.lower = this.lines.map((line) => line.slice(2).toLowerCase());
        /** @type {Map<string, number> | null} */
        this.places = null;
    }

    get count() {
        return this.lines.length;
    }

    /**
     * @param {number} place
     * @returns {ObjectLine}
     */
    at(place) {
        const [kind, name, unit = "", description = ""] = this.lines[place].split("\t");
        return { kind: /** @type {Kind} */ (kind), name, unit, description };
    }

    /**
     * @param {string} name
     * @returns {ObjectLine | null}
     */
    find(name) {
        if (!this.places) this.places = new Map(this.lines.map((line, place) => [line.slice(2, line.indexOf("\t", 2)), place]));
        const place = this.places.get(name);
        return place === undefined ? null : this.at(place);
    }

    /**
     * Places of the objects that have all words in name, unit or description; those whose name begins with the first word come first,
     * then those with it in the name.
     * @param {string} query
     * @param {string} [kinds] only these, "" for all
     */
    search(query, kinds = "") {
        const words = query.toLowerCase().split(/\s+/).filter(Boolean);
        /** @type {number[][]} */
        const ranks = [[], [], [], []];
        const [first = "", ...others] = words;
        for (let place = 0; place < this.lower.length; ++place) {
            const line = this.lower[place];
            const found = line.indexOf(first);
            if (found < 0 || !others.every((word) => line.includes(word))) continue;
            if (kinds && !kinds.includes(this.lines[place][0])) continue;
            if (found === 0) ranks[line[first.length] === "\t" ? 0 : 1].push(place);
            else ranks[found < line.indexOf("\t") ? 2 : 3].push(place);
        }
        return first ? ranks[0].concat(ranks[1], ranks[2], ranks[3]) : ranks[1];
    }
}
