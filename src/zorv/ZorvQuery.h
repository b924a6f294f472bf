// ZorvQuery: read-only answers about process types, interpreters and file
// extensions from the engine's built-in tables. Owned by the engine.
//
// Thread-safe: the tables are immutable after construction.
#pragma once

namespace zorv {

class ZorvQuery {
public:
    ZorvQuery() = default;
    ZorvQuery(const ZorvQuery&) = delete;
    ZorvQuery& operator=(const ZorvQuery&) = delete;
};

}  // namespace zorv
