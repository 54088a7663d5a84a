// The root-path helper lives in common/ (the layer under the platform and the library); include
// it as "root_path.h". This name stays for code that still includes it from here.
#pragma once

#include <root_path.h>
