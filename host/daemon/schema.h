// The JSON Schema of all documents, built into the program from host/common/schema.json.
#pragma once

namespace fxm
{

extern const char *const schema_text;

} // namespace fxm
