// Content upload and upload polling.
#include "QMMemberWebService.h"
