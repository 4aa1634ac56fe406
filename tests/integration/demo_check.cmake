cmake_minimum_required(VERSION 3.25)
# Runs the main job against a virtual camera and checks what it writes: PNG files that decode to
# 320x240 (signature and header chunk) and a PLY file with a vertex count in its header.
# Arguments: VCAM, TOOL, OUT.
file(REMOVE_RECURSE ${OUT})
execute_process(COMMAND ${VCAM} --scene 2 -- ${TOOL} demo --out ${OUT} --seconds 1
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "demo failed (${rc}):\n${out}\n${err}")
endif()
foreach(name depth ir)
  file(READ ${OUT}/${name}.png head LIMIT 24 HEX)
  # Signature, IHDR chunk, width 320, height 240.
  if(NOT head STREQUAL "89504e470d0a1a0a0000000d4948445200000140000000f0")
    message(FATAL_ERROR "${name}.png is not a 320x240 PNG: ${head}")
  endif()
endforeach()
file(STRINGS ${OUT}/points.ply ply LIMIT_COUNT 8)
list(GET ply 0 magic)
string(JOIN "\n" ply_text ${ply})
if(NOT magic STREQUAL "ply" OR NOT ply_text MATCHES "element vertex [1-9][0-9]*")
  message(FATAL_ERROR "points.ply header: ${ply}")
endif()
message(STATUS "demo output ok:\n${out}")
