# The layers of what runs on the appliance. Each is a target whose links are the layers below it;
# tools/layers reads them from layers.txt in the build folder, and fails on an include of a file that
# is in none of them.

set_property(GLOBAL PROPERTY BH_LAYERS "")

# Writes a target's row: its files, from the top of the tree, and what it links.
function(bh_layer_row name)
  cmake_parse_arguments(PARSE_ARGV 1 ROW "" "" "FILES;LINKS")
  cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_SOURCE_DIR}
             OUTPUT_VARIABLE folder)
  list(TRANSFORM ROW_FILES PREPEND "${folder}/")
  list(JOIN ROW_FILES " " files)
  list(JOIN ROW_LINKS " " links)
  set_property(GLOBAL APPEND PROPERTY BH_LAYERS "${name}: ${files} | ${links}")
endfunction()

function(bh_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 LAYER "" "" "FILES;LINKS")
  add_library(${name} STATIC ${LAYER_FILES})
  target_link_libraries(${name} PUBLIC ${LAYER_LINKS})
  bh_own_runtime(${name})
  bh_layer_row(${name} FILES ${LAYER_FILES} LINKS ${LAYER_LINKS})
endfunction()

function(bh_write_layers)
  get_property(rows GLOBAL PROPERTY BH_LAYERS)
  list(JOIN rows "\n" text)
  file(WRITE ${PROJECT_BINARY_DIR}/layers.txt "${text}\n")
endfunction()
