# Compiles each locale/<lang>.po into share/locale/<lang>/LC_MESSAGES/melvo.mo.
file(GLOB MELVO_PO_FILES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/locale/*.po)
set(MELVO_MO_FILES)
foreach(po ${MELVO_PO_FILES})
  get_filename_component(lang ${po} NAME_WE)
  set(mo ${MELVO_LOCALE_DIR}/${lang}/LC_MESSAGES/melvo.mo)
  add_custom_command(OUTPUT ${mo}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${MELVO_LOCALE_DIR}/${lang}/LC_MESSAGES
    COMMAND ${MSGFMT_EXECUTABLE} --check-format -o ${mo} ${po}
    DEPENDS ${po}
    COMMENT "Compiling ${lang}.po")
  list(APPEND MELVO_MO_FILES ${mo})
endforeach()
add_custom_target(melvo_locale ALL DEPENDS ${MELVO_MO_FILES})
