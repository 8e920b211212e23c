# Writes the linker version script of libquorvex: every function and variable that the public
# headers declare is global, everything else (the C++ inside) is local.
#
#   cmake -DCC=<gcc> -DOUT=<file> -DHEADERS=<h1;h2;...> -DINCLUDES=<dir1;dir2;...> -P exports.cmake
#
# Functions come from GCC's -aux-info listing of a C file that includes every public header;
# variables from their "extern" declarations. OUT is rewritten only when the list changes.
foreach(var CC OUT HEADERS INCLUDES)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "exports.cmake: ${var} is not set")
  endif()
endforeach()

get_filename_component(work "${OUT}" DIRECTORY)
set(tu "${work}/quorvex_exports.c")
set(aux "${work}/quorvex_exports.aux")
set(text "")
foreach(h ${HEADERS})
  string(APPEND text "#include \"${h}\"\n")
endforeach()
file(WRITE "${tu}" "${text}")

set(flags "")
foreach(dir ${INCLUDES})
  list(APPEND flags "-I${dir}")
endforeach()
execute_process(COMMAND "${CC}" -std=gnu11 -fsyntax-only -aux-info "${aux}" ${flags} "${tu}"
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "exports.cmake: the public headers do not compile as C:\n${err}")
endif()

set(names "")
# Lines look like: /* /src/main/quota.h:17:NC */ extern int get_conf (void);
file(STRINGS "${aux}" lines)
foreach(line ${lines})
  if(NOT line MATCHES "^/\\* ([^:]+):[0-9]+:[A-Z]+ \\*/ (.*)$")
    continue()
  endif()
  set(file "${CMAKE_MATCH_1}")
  set(decl "${CMAKE_MATCH_2}")
  list(FIND HEADERS "${file}" found)
  if(found EQUAL -1)
    continue()
  endif()
  # The name is the last identifier before the parameter list.
  string(FIND "${decl}" " (" paren)
  string(SUBSTRING "${decl}" 0 ${paren} head)
  if(head MATCHES "([A-Za-z_][A-Za-z0-9_]*)$")
    list(APPEND names "${CMAKE_MATCH_1}")
  endif()
endforeach()

foreach(h ${HEADERS})
  file(STRINGS "${h}" decls REGEX "^[ \t]*extern[ \t]+[^(\"]*[;]")
  foreach(decl ${decls})
    if(decl MATCHES "([A-Za-z_][A-Za-z0-9_]*)[ \t]*(\\[[^]]*\\])?[ \t]*;")
      list(APPEND names "${CMAKE_MATCH_1}")
    endif()
  endforeach()
endforeach()

list(REMOVE_DUPLICATES names)
list(SORT names)
list(LENGTH names count)
if(count EQUAL 0)
  message(FATAL_ERROR "exports.cmake: no declaration found in the public headers")
endif()
set(script "/* Generated from the public headers; do not edit. */\n{\n  global:\n")
foreach(n ${names})
  string(APPEND script "    ${n};\n")
endforeach()
string(APPEND script "  local:\n    *;\n};\n")
file(WRITE "${OUT}.new" "${script}")
file(COPY_FILE "${OUT}.new" "${OUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUT}.new")
