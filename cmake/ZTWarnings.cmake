set(ZT_WARNING_FLAGS -Wall -Wextra -Wshadow=local -Wno-unused-parameter)
if(ZT_WERROR)
  list(APPEND ZT_WARNING_FLAGS -Werror)
endif()
