# qel_embed(TARGET SYMBOL [NAME FILE]…)
#
# Puts files into TARGET, byte for byte, and generates embedded/SYMBOL.h with
#     namespace qel::embedded { struct File { std::string_view name; std::span<const unsigned char> bytes; };
#                               std::span<const File> SYMBOL(); }
function(qel_embed target symbol)
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/embedded_${symbol})
  # With control-flow protection on, one object without its note would switch it off for the whole library.
  set(asm "#ifdef __CET__\n#include <cet.h>\n#endif\n    .section .rodata\n")
  set(decls "")
  set(rows "")
  set(files "")
  set(index 0)
  set(rest ${ARGN})
  while(rest)
    list(POP_FRONT rest name file)
    if(NOT EXISTS ${file})
      message(FATAL_ERROR "the file to embed as ${name} is missing: ${file} (d3 comes with 'npm ci')")
    endif()
    set(id qel_embedded_${symbol}_${index})
    string(APPEND asm "    .hidden ${id}\n    .hidden ${id}_end\n    .global ${id}\n    .global ${id}_end\n${id}:\n    .incbin \"${file}\"\n${id}_end:\n    .byte 0\n")
    string(APPEND decls "extern const unsigned char ${id}[];\nextern const unsigned char ${id}_end[];\n")
    string(APPEND rows "    File{\"${name}\", {${id}, ${id}_end}},\n")
    list(APPEND files ${file})
    math(EXPR index "${index} + 1")
  endwhile()
  string(APPEND asm "    .section .note.GNU-stack,\"\",@progbits\n")
  file(CONFIGURE OUTPUT ${dir}/${symbol}.S CONTENT "${asm}" @ONLY)
  file(CONFIGURE OUTPUT ${dir}/embedded/${symbol}.h @ONLY CONTENT
"#pragma once
// Generated at configure time.
#include <span>
#include <string_view>
namespace qel::embedded {
#ifndef QEL_EMBEDDED_FILE
#define QEL_EMBEDDED_FILE
struct File {
    std::string_view name;
    std::span<const unsigned char> bytes;
};
#endif
std::span<const File> ${symbol}();
}  // namespace qel::embedded
")
  file(CONFIGURE OUTPUT ${dir}/${symbol}.cpp @ONLY CONTENT
"// Generated at configure time.
#include \"embedded/${symbol}.h\"
extern \"C\" {
${decls}}
namespace qel::embedded {
std::span<const File> ${symbol}() {
    static const File files[] = {
${rows}    };
    return files;
}
}  // namespace qel::embedded
")
  set_source_files_properties(${dir}/${symbol}.S PROPERTIES OBJECT_DEPENDS "${files}")
  target_sources(${target} PRIVATE ${dir}/${symbol}.S ${dir}/${symbol}.cpp)
  target_include_directories(${target} PRIVATE ${dir})
endfunction()
