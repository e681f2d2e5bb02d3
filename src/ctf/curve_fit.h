// Least-squares fits of curves.
#pragma once

// y = a*x + b over n points: a = (sum xy - n mean(x) mean(y)) / (sum x^2 -
// n mean(x)^2), b = mean(y) - a mean(x), in float.
void line_fit(const float* x, const float* y, int n, float& a, float& b);
