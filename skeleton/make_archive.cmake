# Makes the archive of the default skeleton. The same sources give the same bytes, wherever, whenever
# and under whatever umask: names sorted, owner and modes fixed, one time for all, which is that of
# SOURCE_DATE_EPOCH where it is set.
#   cmake -DARCHIVE=<file> -DSTAGE=<directory that is made anew> -P make_archive.cmake
cmake_minimum_required(VERSION 3.23)
set(first_of_2026 1767225600)

set(here ${CMAKE_CURRENT_LIST_DIR})
foreach(part page index status)
  file(READ ${here}/${part}.html ${part})
endforeach()
file(READ ${here}/style.css style)
string(REPLACE "{{style}}" "${style}" page "${page}")

#   write_page(<file> <title> <what stands in it>)
function(write_page file title main)
  string(REPLACE "{{main}}" "${main}" text "${page}")
  string(REPLACE "{{title}}" "${title}" text "${text}")
  if(text MATCHES "{{[^}]*}}")
    message(FATAL_ERROR "${file}: nothing stands for ${CMAKE_MATCH_0}")
  endif()
  file(WRITE ${STAGE}/${file} "${text}")
endfunction()

function(write_status_pages)
  file(STRINGS ${here}/status-pages.txt lines REGEX "^[^#]")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "^([1-5][0-9][0-9])\\|([^|]+)\\|([^|]+)$")
      message(FATAL_ERROR "status-pages.txt: this is no status page: ${line}")
    endif()
    set(code ${CMAKE_MATCH_1})
    set(title ${CMAKE_MATCH_2})
    string(REPLACE "{{status}}" "${code}" main "${status}")
    string(REPLACE "{{text}}" "${CMAKE_MATCH_3}" main "${main}")
    write_page(error_docs/${code}.html "${title}" "${main}")
  endforeach()
endfunction()

function(pack)
  set(time ${first_of_2026})
  if(DEFINED ENV{SOURCE_DATE_EPOCH})
    set(time $ENV{SOURCE_DATE_EPOCH})
  endif()
  file(GLOB sections RELATIVE ${STAGE} ${STAGE}/*)
  execute_process(
    COMMAND tar -c -C ${STAGE} --format=ustar --sort=name --mtime=@${time}
      --owner=0 --group=0 --numeric-owner --mode=u=rwX,go=rX ${sections}
    COMMAND gzip -9 -n
    OUTPUT_FILE ${ARCHIVE} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE ${STAGE})
write_page(httpdocs/index.html "@domain_name@" "${index}")
write_status_pages()
# Without the executable bit, whatever the source has: a client switches a program on knowingly.
file(COPY ${here}/cgi-bin DESTINATION ${STAGE} FILE_PERMISSIONS OWNER_READ OWNER_WRITE)
file(MAKE_DIRECTORY ${STAGE}/anon_ftp ${STAGE}/statistics ${STAGE}/webspace)
pack()
