# The driver's folders form an order, lowest first: a folder may include its own headers and
# those of the folders below it, never one above. The file layer (frame/FileLayer.h) and the
# host's settings (frame/Host.h) sit below them all: the trace log is written through the one,
# and the other only holds what the host and the mains hand down. Each folder has a public
# header and a private one (*Internal.h) that only its own files and its tests include. An
# upward include, or one of another folder's private header, fails the configure.
set(KOBALT_LAYERS output config oblis image checks update frame)
set(KOBALT_BASE_HEADERS frame/FileLayer.h frame/Host.h)
foreach(folder ${KOBALT_LAYERS})
  list(FIND KOBALT_LAYERS ${folder} rank)
  file(GLOB files CONFIGURE_DEPENDS ${KOBALT_DIR}/${folder}/*.cpp ${KOBALT_DIR}/${folder}/*.h)
  set(above "")
  foreach(source ${files})
    file(STRINGS ${source} includes REGEX "^#include \"[a-z]+/[A-Za-z]+\\.h\"")
    foreach(line ${includes})
      string(REGEX REPLACE "^#include \"(([a-z]+)/[A-Za-z]+\\.h)\".*" "\\1;\\2" parts "${line}")
      list(GET parts 0 header)
      list(GET parts 1 target)
      list(FIND KOBALT_LAYERS ${target} targetRank)
      # A folder's *Internal.h is its own: another folder takes only the public header.
      if(header MATCHES "Internal\\.h$" AND NOT target STREQUAL folder)
        file(RELATIVE_PATH name ${KOBALT_DIR} ${source})
        list(APPEND above "${name} -> ${header} (private)")
      elseif(targetRank GREATER rank AND NOT header IN_LIST KOBALT_BASE_HEADERS)
        file(RELATIVE_PATH name ${KOBALT_DIR} ${source})
        list(APPEND above "${name} -> ${header}")
      endif()
    endforeach()
  endforeach()
  list(JOIN above "\n  " text)
  if(above)
    message(FATAL_ERROR "${folder}/ includes a folder above it or another folder's private header:\n  ${text}")
  endif()
endforeach()
