// Files of the tree that are built into the program.
#pragma once

namespace fxm
{

extern const char *const schema_text; // host/common/schema.json: the JSON Schema of all documents
extern const char *const page_text;   // host/web/page.html: the page for browsers

} // namespace fxm
