#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "platform/document.h"
#include "platform/host.h"
#include "platform/result.h"

namespace platform {

// Scene files: JSON with the objects of a document and the preference values the scene
// overrides. Parameters are stored under their numeric IDs with the symbol beside them, so
// a file written today stays readable when symbols change.
//
//   {"vellgrund": 1,
//    "preferences": {"1000": 4000, "1055700": {"1": true}},
//    "objects": [{"type": "oterrain", "name": "Terrain", "id": "0",
//                 "enabled": false, "editor_visible": "off", "render_visible": "on",
//                 "level": 0, "matrix": {"off": [..], "v1": [..], "v2": [..], "v3": [..]},
//                 "params": {"10002 TERRAINOBJECT_RESOLUTION_X": 256, ...},
//                 "children": [...]}]}
//
// "preferences": keys of the module's main preference page at the top; other overridden
// containers as "<plug-in ID>": {keys}. Values are booleans, integers (Int32, Int64 when
// larger), numbers (Float), strings and [x, y, z]; an integer for a key that holds an Int64
// or a Float takes that type, as in the application's preferences file.
// Objects: "type" is a resource name or plug-in ID; instead of "matrix" a file may give
// "position", "rotation" (degrees, applied Z, X, Y) and "scale". Parameter keys are an ID,
// a symbol, or "ID SYMBOL" (the ID decides). Values: booleans, integers (an Int32 with an
// enumeration also takes member names, "A|B" for flag sets), numbers, [x, y, z], strings,
// curves {"preset": NAME} or {"knots": [{"position": [x, y], "left": [x, y],
// "right": [x, y], "flags": 0}]}, field lists {"layers": [{"field": <id>, "opacity": 1.0,
// "blend": "NORMAL", "enabled": true}]}, links {"link": <id>} or null, and matrices as
// above. Links name the "id" of an object anywhere in the file. Read-only parameters are
// checked and dropped, never written.
//
// Loading refuses malformed JSON, unknown types, unknown parameters, wrong value types and
// values outside a parameter's limits with an illegal-argument error whose text names the
// node and the key; nothing of a refused file is kept. Every node is read with the disk
// level the file gives (its type's current level when absent), so its data can convert
// older files.
//
// Bounds keep a hostile file from taking the machine: a scene of more than kMaxSceneBytes
// and names of more than kMaxNameBytes are refused, and messages quote user text cut short.
inline constexpr std::size_t kMaxSceneBytes = std::size_t{64} << 20;
inline constexpr std::size_t kMaxNameBytes = 1024;
Result<std::unique_ptr<Document>> LoadScene(Host& host, std::string_view json, std::string_view sourceName);
Result<std::unique_ptr<Document>> LoadSceneFile(Host& host, const std::filesystem::path& file);

Result<std::string> SaveScene(const Document& document);
// Written atomically: a failure leaves any earlier file as it was.
Status SaveSceneFile(const Document& document, const std::filesystem::path& file);

// One parameter's value in the JSON form a scene file gives it (choices by member name,
// curves as {"preset": ...} or {"knots": [...]}, vectors as [x, y, z]), for scripting
// front-ends, which so accept and show exactly what files do. Numbers outside their limits
// are clamped with a warning. Links and field lists name other nodes by their file keys,
// which exist only within a file: they are refused here.
Result<Value> ReadParameterValue(Node& node, const ParameterDescription& parameter, std::string_view json);
Result<std::string> WriteParameterValue(const Node& node, const ParameterDescription& parameter);

// Same objects in the same order with the same types, names, states, matrices and
// parameters (links compared by the place of their targets), and the same preference
// overrides.
bool DocumentsEqual(const Document& a, const Document& b);

}  // namespace platform
