# qel_embed_report_resources(TARGET SYMBOL): puts the three files that every report page loads into a program.
#
# The resource table belongs to the program, not to the library, so that a host can bring its own art.
# d3 is fetched by npm in the exact release of package-lock.json and embedded unchanged.
function(qel_embed_report_resources target symbol)
  set(d3 ${PROJECT_SOURCE_DIR}/node_modules/d3/dist/d3.min.js)
  if(NOT EXISTS ${d3})
    find_program(QEL_NPM npm REQUIRED)
    message(STATUS "Fetching d3 with 'npm ci'")
    execute_process(COMMAND ${QEL_NPM} ci --no-audit --no-fund
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} RESULT_VARIABLE result OUTPUT_QUIET)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "'npm ci' failed in ${PROJECT_SOURCE_DIR}; it provides the chart library d3")
    endif()
  endif()
  set(art ${PROJECT_SOURCE_DIR}/resources)
  qel_embed(${target} ${symbol}
    "tmpl-d3.min.js" ${d3}
    "tmpl-zorvik-icon.png" ${art}/zorvik-icon.png
    "tmpl-zorvik-slogan.png" ${art}/zorvik-slogan.png)
endfunction()
