/* A program with nested calls through several source files, for a traceback to show. */
#ifndef SHAPES_H
#define SHAPES_H

#ifdef __cplusplus
extern "C" {
#endif

/* Adds up numbers along a list of shapes. The list is broken: a fault comes of it. */
double total_area(int shapes);

double area_of_shape(int shape);
double radius_of_circle(int circle);

#ifdef __cplusplus
}
#endif

#endif
