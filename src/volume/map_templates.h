// Templates for the picker from a 3D map, and a test map to make them from.
#pragma once

// Projections of a cubic map at directions about step degrees apart over the
// asymmetric unit of sym (asym_unit_orientations: Cn or Dn, psi 0; the picker
// searches the in-plane angle itself), written as a float stack with the pixel
// size apix in its head (apix 0: the map's own; a map without one needs it
// given).  One line per template.  Returns the number of templates.
int mrcf_3d_project_templates(const char* map, const char* out, const char* sym, float step, float apix);

// A cubic map of side box with a pixel of apix A: three soft Gaussian lobes
// of different widths inside a particle of the given diameter (A), placed so
// that no two views are alike; seen along z it is the particle that the
// synthetic micrographs hold.  The head carries the pixel size.
int mrcf_3d_test_lobes(const char* name, int box, float apix, float diameter);
