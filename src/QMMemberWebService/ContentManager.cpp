// Content manager: catalogue, metadata, versions, hash notices and cart.
#include "QMMemberWebService.h"
