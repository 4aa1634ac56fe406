cmake_minimum_required(VERSION 3.25)
# Runs the main job against a virtual camera and checks what it writes: PNG files of the camera's
# size (signature and header chunk) and a PLY file with a vertex count in its header.
# Arguments: VCAM, TOOL, OUT; MODEL sony for a virtual SONY unit (640x480) instead of an EPC one.
file(REMOVE_RECURSE ${OUT})
if(MODEL STREQUAL "sony")
  set(vcam_args --model sony)
  set(size_hex "00000280000001e0")
else()
  set(vcam_args --scene 2)
  set(size_hex "00000140000000f0")
endif()
execute_process(COMMAND ${VCAM} ${vcam_args} -- ${TOOL} demo --out ${OUT} --seconds 1
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "demo failed (${rc}):\n${out}\n${err}")
endif()
foreach(name depth ir)
  file(READ ${OUT}/${name}.png head LIMIT 24 HEX)
  # Signature, IHDR chunk, width and height.
  if(NOT head STREQUAL "89504e470d0a1a0a0000000d49484452${size_hex}")
    message(FATAL_ERROR "${name}.png is not a PNG of the camera's size: ${head}")
  endif()
endforeach()
file(STRINGS ${OUT}/points.ply ply LIMIT_COUNT 8)
list(GET ply 0 magic)
string(JOIN "\n" ply_text ${ply})
if(NOT magic STREQUAL "ply" OR NOT ply_text MATCHES "element vertex [1-9][0-9]*")
  message(FATAL_ERROR "points.ply header: ${ply}")
endif()
message(STATUS "demo output ok:\n${out}")

# "export" of the frame the demo exported writes the same files, in PLY and PCD; Open3D reads them.
if(NOT out MATCHES "replayed  frame #([0-9]+)")
  message(FATAL_ERROR "the demo names no replayed frame:\n${out}")
endif()
math(EXPR frame "${CMAKE_MATCH_1} - 1")
execute_process(COMMAND ${TOOL} export ${OUT}/capture.oni --frame ${frame} --depth ${OUT}/e.png
                        --ir ${OUT}/e_ir.png --points ${OUT}/e.ply
                RESULT_VARIABLE rc OUTPUT_VARIABLE eout ERROR_VARIABLE err)
execute_process(COMMAND ${TOOL} export ${OUT}/capture.oni --frame ${frame} --points ${OUT}/e.pcd
                RESULT_VARIABLE rc2 ERROR_VARIABLE err2)
if(NOT rc EQUAL 0 OR NOT rc2 EQUAL 0)
  message(FATAL_ERROR "export failed (${rc}, ${rc2}): ${err}${err2}")
endif()
foreach(pair "depth.png;e.png" "ir.png;e_ir.png" "points.ply;e.ply")
  list(GET pair 0 a)
  list(GET pair 1 b)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUT}/${a} ${OUT}/${b}
                  RESULT_VARIABLE same)
  if(NOT same EQUAL 0)
    message(FATAL_ERROR "export of frame ${frame} differs from the demo's ${a}")
  endif()
endforeach()
string(REGEX MATCH "element vertex ([0-9]+)" _ "${ply_text}")
set(points ${CMAKE_MATCH_1})
if(EXISTS /usr/bin/python3)
  execute_process(
    COMMAND /usr/bin/python3 -c "import sys, open3d
for path in sys.argv[1:]:
    n = len(open3d.io.read_point_cloud(path).points)
    assert n == ${points}, (path, n)
print('open3d reads', ${points}, 'points')" ${OUT}/e.ply ${OUT}/e.pcd
    RESULT_VARIABLE rc OUTPUT_VARIABLE o3d ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "Open3D does not read the exported points: ${err}")
  endif()
  message(STATUS "${o3d}")
endif()
