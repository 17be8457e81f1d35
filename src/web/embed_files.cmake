# Generates the C++ table of the page's files: one byte array per file and one
# comparison per file in QuorlHtml::get. Run at build time with
#   -DOUTPUT=<file.cpp> -DPAGE_DIR=<folder> -DFILES=<name|name|...>
string(REPLACE "|" ";" FILES "${FILES}")
set(body "")
set(lookups "")
set(index 0)
foreach(name IN LISTS FILES)
  file(READ "${PAGE_DIR}/${name}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  # Lines of 32 bytes keep the generated file readable by tools.
  string(REGEX REPLACE "((0x..,){32})" "\\1\n" bytes "${bytes}")
  string(APPEND body "const unsigned char file${index}[${size} + 1] = {\n${bytes}0};\n")
  string(APPEND lookups "\tif (QuorlHtml::match(\"/${name}\", path)) return {file${index}, ${size}};\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.new" "// Generated from the page's files by embed_files.cmake; do not edit.
#include \"web/quorl_html.h\"

namespace quorl {
namespace {
${body}} // namespace

QuorlHtml::File QuorlHtml::get(const char *path) {
	if (!path || path[0] != '/') return {nullptr, 0};
${lookups}	return {nullptr, 0};
}

} // namespace quorl
")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.new")
