# The settings dialog and the about box of the tray menu.
target_sources(velmor_ui PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/Settings.h ${CMAKE_CURRENT_LIST_DIR}/Settings.cpp
  ${CMAKE_CURRENT_LIST_DIR}/About.h ${CMAKE_CURRENT_LIST_DIR}/About.cpp)
