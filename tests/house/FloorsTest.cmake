# cmake -DCHECK=<CheckFloors.cmake> -DPLACE=<scratch folder> -P FloorsTest.cmake
# Builds a house of three rooms in which all is well, plants one include at a time, and reads what the check says.
cmake_minimum_required(VERSION 3.25)

function(check_house file include result words)
  file(REMOVE_RECURSE ${PLACE})
  file(WRITE ${PLACE}/floors.txt "# <floor> <folder>\n1 cellar\n2 cellar/wine\n2 hall\n")
  file(WRITE ${PLACE}/src/cellar/Shelf.h "#include <vector>\n")
  file(WRITE ${PLACE}/src/cellar/detail/Rack.h "#include \"cellar/Shelf.h\"\n")
  file(WRITE ${PLACE}/src/cellar/Shelf.cpp "#include \"cellar/detail/Rack.h\"\n")
  file(WRITE ${PLACE}/src/cellar/wine/Bottle.h "#include \"cellar/Shelf.h\"\n")
  file(WRITE ${PLACE}/src/hall/Table.cpp "#include \"cellar/Shelf.h\"\n")
  if(file)
    file(APPEND ${PLACE}/src/${file} "#include \"${include}\"\n")
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -DSRC=${PLACE}/src -DFLOORS=${PLACE}/floors.txt -P ${CHECK}
                  RESULT_VARIABLE code OUTPUT_VARIABLE text ERROR_VARIABLE text)
  string(REGEX REPLACE "[ \n]+" " " text "${text}")  # cmake breaks long lines
  set(${result} ${code} PARENT_SCOPE)
  set(${words} "${text}" PARENT_SCOPE)
endfunction()

check_house("" "" code words)
if(code)
  message(FATAL_ERROR "The check refuses a house in which all is well: ${words}")
endif()

# Each: the file, what it includes, and what the check must say.
foreach(row
    "cellar/Shelf.cpp|hall/Table.h|cellar/Shelf.cpp (cellar, floor 1) includes hall/Table.h (hall, floor 2)"
    "hall/Table.cpp|cellar/wine/Bottle.h|hall/Table.cpp (hall, floor 2) includes cellar/wine/Bottle.h (cellar/wine, floor 2)"
    "cellar/detail/Rack.h|cellar/wine/Bottle.h|cellar/detail/Rack.h (cellar, floor 1) includes cellar/wine/Bottle.h (cellar/wine, floor 2)"
    "hall/Table.cpp|cellar/detail/Rack.h|hall/Table.cpp (hall) includes cellar/detail/Rack.h, which belongs to cellar alone"
    "hall/Table.cpp|garden/Tree.h|hall/Table.cpp includes garden/Tree.h, which stands in no room"
    "garden/Tree.h|cellar/Shelf.h|garden/Tree.h stands in no room")
  string(REPLACE "|" ";" row "${row}")
  list(GET row 0 file)
  list(GET row 1 include)
  list(GET row 2 expected)
  check_house(${file} ${include} code words)
  string(FIND "${words}" "${expected}" place)
  if(NOT code OR place EQUAL -1)
    message(FATAL_ERROR "${file} includes ${include}: expected \"${expected}\", and the check says (${code}): ${words}")
  endif()
endforeach()
