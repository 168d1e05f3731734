// The library's face: its static initialisation registers the class with the host's loader.

#include <class_loader/register_macro.hpp>

#include "ostrel_plugin/src/ostrel_algo.h"

CLASS_LOADER_REGISTER_CLASS(OstrelAlgo, IAlgoPlugin)
