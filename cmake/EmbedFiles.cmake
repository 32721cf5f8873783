# Turns files into a C++ source of byte arrays, so that a program serves them from inside its
# binary. Run as a script at build time:
#
#   cmake -DOUTPUT=out.cpp -DBASE_DIR=dir -DFILES=index.html,app.js -DNAMESPACE=ns -DHEADER=h.h \
#         -P EmbedFiles.cmake
#
# OUTPUT defines, in namespace NAMESPACE, `const EmbeddedFile kEmbeddedFiles[]` and
# `const std::size_t kEmbeddedFileCount`, declared by the header named by HEADER (included as
# "HEADER"), where EmbeddedFile is {const char* name; const char* version; const unsigned char*
# data; std::size_t size;}. `name` is the path below BASE_DIR, `version` the first 16 hex digits
# of the content's SHA-256, and each array ends with an extra NUL that `size` does not count.
#
# Each file named *.html has every quoted reference to another embedded file, "/assets/NAME",
# replaced with "/assets/NAME?v=VERSION": a page then always loads the assets it was built with,
# and the assets can be cached for good.
foreach(variable OUTPUT BASE_DIR FILES NAMESPACE HEADER)
  if(NOT DEFINED ${variable})
    message(FATAL_ERROR "EmbedFiles.cmake: ${variable} is not set")
  endif()
endforeach()

string(REPLACE "," ";" FILES "${FILES}")

# The versions of the files that pages refer to.
foreach(name IN LISTS FILES)
  file(SHA256 "${BASE_DIR}/${name}" hash)
  string(SUBSTRING "${hash}" 0 16 version_${name})
endforeach()

set(arrays "")
set(table "")
set(index 0)
foreach(name IN LISTS FILES)
  set(path "${BASE_DIR}/${name}")
  set(version "${version_${name}}")
  if(name MATCHES "\\.html$")
    file(READ "${path}" text)
    foreach(other IN LISTS FILES)
      if(NOT other MATCHES "\\.html$")
        string(REPLACE "\"/assets/${other}\"" "\"/assets/${other}?v=${version_${other}}\"" text
                       "${text}")
      endif()
    endforeach()
    # What is served is the page with its references versioned: hash and embed that.
    set(path "${OUTPUT}.${index}.tmp")
    file(WRITE "${path}" "${text}")
    file(SHA256 "${path}" hash)
    string(SUBSTRING "${hash}" 0 16 version)
  endif()
  file(READ "${path}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  # 0x.., one line per 32 bytes.
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REPEAT "0x[0-9a-f][0-9a-f]," 32 line)  # CMake's regular expressions have no {32}
  string(REGEX REPLACE "(${line})" "\\1\n    " bytes "${bytes}")
  string(APPEND arrays "const unsigned char kFile${index}[] = {\n    ${bytes}0x00};\n")
  string(APPEND table "    {\"${name}\", \"${version}\", kFile${index}, ${size}},\n")
  if(name MATCHES "\\.html$")
    file(REMOVE "${path}")
  endif()
  math(EXPR index "${index} + 1")
endforeach()

set(source "// Generated at build time by cmake/EmbedFiles.cmake from the files of ${BASE_DIR}.
// Do not edit: edit those files.
#include \"${HEADER}\"

namespace ${NAMESPACE} {
namespace {

${arrays}
}  // namespace

const EmbeddedFile kEmbeddedFiles[] = {
${table}};
const std::size_t kEmbeddedFileCount = ${index};

}  // namespace ${NAMESPACE}
")

file(WRITE "${OUTPUT}" "${source}")
