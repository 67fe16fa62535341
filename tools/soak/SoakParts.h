#pragma once

// Which kinds of work a round does; leaving some out shows which one grows.
struct SoakParts {
    bool sessions = true;  // without them, no commands and no streams either
    bool commands = true;
    bool streams = true;
    bool updates = true;
    bool drmp = true;
};
