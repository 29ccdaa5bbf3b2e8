// What must hold of a driver image before Windows 7 and later load it and before it may ship.
#pragma once

#include "pe_image.h"

#include <string>
#include <vector>

// One text per rule that the image breaks; empty for an image that may ship. Each text begins with the rule's name and
// a colon. Throws pe::Malformed when the image cannot even be read.
std::vector<std::string> FindBrokenRules(const pe::Image& image);
