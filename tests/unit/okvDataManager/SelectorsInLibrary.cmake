# Looks into the built library: the texts of the messages that a data manager never sends are not even in it.
execute_process(COMMAND ${READELF} -p .rodata ${LIBRARY} OUTPUT_VARIABLE texts COMMAND_ERROR_IS_FATAL ANY)
if(NOT texts MATCHES "\\] +setOkvBlackExtensionListPT:value:\n")
    message(FATAL_ERROR "the library's texts were not found at all")
endif()
foreach(selector removeAsClient: connectCount endServer okvDataPT:osUid: okvDataAllPT: okvDataAllPT:osUid:
        filterSettingsDataPT systemConfDataPT cmnSettingsDataPT useridUpdatePT)
    if(texts MATCHES "\\] +${selector}\n")
        message(FATAL_ERROR "the library holds the text of ${selector}")
    endif()
endforeach()
