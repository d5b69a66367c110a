# The desktop program: the application object, its delegate, the splash window.
# The classes form a library of their own so that tests can drive them.
pelicane_add_library(pelicane_appshell
  SOURCES appdelegate.h appdelegate.cpp
          splashwindowcontroller.h splashwindowcontroller.cpp SplashWindowController.ui
          reportexceptionapplication.h reportexceptionapplication.cpp
  LIBS pelicane_session_ui pelicane_session pelicane_widgets pelicane_platform pelicane_logger Qt6::Widgets)

add_executable(pelicane main.cpp)
target_link_libraries(pelicane PRIVATE pelicane_common pelicane_appshell)
# Exported symbols let crash reports name the program's own functions.
set_target_properties(pelicane PROPERTIES AUTOMOC ON AUTOUIC ON ENABLE_EXPORTS ON)
