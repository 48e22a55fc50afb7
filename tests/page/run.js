// @ts-check
import { run } from "/test/check.js";
import "/test/editing_test.js";
import "/test/drawing_test.js";
import "/test/texts_test.js";

run();
