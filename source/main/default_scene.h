#pragma once

namespace VLGD {

// The scene every front-end starts from: examples/default.json, compiled in.
extern const char* const kDefaultScene;

}  // namespace VLGD
