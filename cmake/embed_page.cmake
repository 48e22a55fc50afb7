# Writes OUT, a C++ source that holds the files of FOLDER (see src/page/page_files.h). Run as a script.
file(GLOB files RELATIVE ${FOLDER} ${FOLDER}/*.html ${FOLDER}/*.css ${FOLDER}/*.js ${FOLDER}/*.svg)
list(SORT files)
set(types_html "text/html; charset=utf-8")
set(types_css "text/css; charset=utf-8")
set(types_js "text/javascript; charset=utf-8")
set(types_svg "image/svg+xml")
set(arrays "")
set(table "")
set(number 0)
foreach(name IN LISTS files)
    file(READ ${FOLDER}/${name} bytes HEX)
    string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
    string(REGEX REPLACE ".*\\.([a-z]+)$" "\\1" ending "${name}")
    string(APPEND arrays "const unsigned char kBytes${number}[] = {${bytes}0};\n")
    string(APPEND table "    {\"${name}\", \"${types_${ending}}\", textOf(kBytes${number})},\n")
    math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUT} "// Made by cmake/embed_page.cmake.
#include \"page/page_files.h\"

namespace lm::page {
namespace {

template <std::size_t size>
std::string_view textOf(const unsigned char (&bytes)[size]) {
    return {reinterpret_cast<const char*>(bytes), size - 1};
}

${arrays}
const PageFile kFiles[] = {
${table}};

}  // namespace

std::span<const PageFile> pageFiles() {
    return kFiles;
}

}  // namespace lm::page
")
