// Launcher services: the member's products, purchases, redirect links, language packs, plug-ins and agreements.
#include "QMMemberWebService.h"
