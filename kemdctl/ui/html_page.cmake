# cmake -D SOURCE=FOLDER/NAME -D HEADER=... -D VARIABLE=... -D OUTPUT=... -P html_page.cmake - puts the three files
# of a page together, NAME.html, NAME.css and NAME.js, with the head of all pages, and makes a C++ source of it:
# ${VARIABLE}BeforeData and ${VARIABLE}AfterData, which HEADER declares. The page runs no script and takes no style but
# those with these hashes.

# The text's SHA-256 as base64.
function(hash text result)
  set(alphabet ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
  string(SHA256 digits "${text}")
  set(base64 "")
  foreach(at RANGE 0 60 6)
    # The last group has two bytes of three.
    string(SUBSTRING "${digits}00" ${at} 6 group)
    foreach(shift 18 12 6 0)
      math(EXPR index "(0x${group} >> ${shift}) & 63")
      string(SUBSTRING ${alphabet} ${index} 1 character)
      string(APPEND base64 "${character}")
    endforeach()
  endforeach()
  string(REGEX REPLACE ".$" "=" base64 "${base64}")
  set(${result} "${base64}" PARENT_SCOPE)
endfunction()

# As numbers: a string literal may not be that long.
function(put name text)
  string(HEX "${text}" bytes)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  file(APPEND ${OUTPUT} "static constexpr char k${name}[] = {${bytes}};\n"
    "const std::string_view ${VARIABLE}${name}Data{k${name}, sizeof k${name}};\n")
endfunction()

file(READ ${SOURCE}.html page)
file(READ ${CMAKE_CURRENT_LIST_DIR}/html_page_head.html head)
string(REGEX MATCH "^@HEAD ([^@]*)@\n" first "${page}")
string(REPLACE "@TITLE@" "${CMAKE_MATCH_1}" head "${head}")
string(REPLACE "${first}" "${head}" page "${page}")
foreach(part STYLE=css SCRIPT=js)
  string(REGEX MATCH "(.*)=(.*)" part ${part})
  set(name ${CMAKE_MATCH_1})
  file(READ ${SOURCE}.${CMAKE_MATCH_2} text)
  hash("${text}" digest)
  string(REPLACE "@${name}@" "${text}" page "${page}")
  string(REPLACE "@${name}_HASH@" "${digest}" page "${page}")
endforeach()
string(FIND "${page}" "@DATA@" at)
if(at LESS 0)
  message(FATAL_ERROR "${SOURCE}.html has no place for its data")
endif()
string(SUBSTRING "${page}" 0 ${at} before)
math(EXPR at "${at} + 6")
string(SUBSTRING "${page}" ${at} -1 after)
file(WRITE ${OUTPUT} "#include \"${HEADER}\"\n\n")
put(Before "${before}")
put(After "${after}")
