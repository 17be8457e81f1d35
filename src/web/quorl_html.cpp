#include "web/quorl_html.h"

namespace quorl {

bool QuorlHtml::match(const char *name, const char *path) {
	for (; *name; ++name, ++path) {
		if (*path != *name) return false;
	}
	return *path == '\0' || *path == '?' || *path == '#';
}

} // namespace quorl
