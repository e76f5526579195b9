# The driver's folders form an order, lowest first: a folder may include its own headers and
# those of the folders below it, never one above. What every folder uses (KobaltBase.h, the file
# layer, the host's settings) is declared in FlashUtilityPkg/Include, below them all. Each folder
# has a public header and a private one (*Internal.h) that only its own files and its tests
# include. An upward include, or one of another folder's private header, fails the configure.
set(KOBALT_LAYERS output config oblis image checks update frame)
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
      elseif(targetRank GREATER rank)
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
