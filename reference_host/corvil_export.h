// Marks the functions and data that a library of the reference host exports. All else is hidden.
#pragma once

#define CORVIL_EXPORT __attribute__((__visibility__("default")))
