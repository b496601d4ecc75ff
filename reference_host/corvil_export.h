// Marks the functions and data that a library of the reference host exports. All else is hidden.
#ifndef REFERENCE_HOST_CORVIL_EXPORT_H_
#define REFERENCE_HOST_CORVIL_EXPORT_H_

#define CORVIL_EXPORT __attribute__((__visibility__("default")))

#endif  // REFERENCE_HOST_CORVIL_EXPORT_H_
