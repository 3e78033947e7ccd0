# One warning policy for every target of the project.
add_compile_options(-Wall -Wextra -Wno-unused-parameter)
if(HPW_WERROR)
  add_compile_options(-Werror)
endif()
