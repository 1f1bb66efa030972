# The elastix parameter files of the comparisons (sourced by bench/compare_*.sh):
# Mattes mutual information (32 bins), adaptive stochastic gradient descent on
# 4096 random samples a iteration, 3 resolutions, B-spline interpolation.

# The common lines, then the lines given as arguments.
elastix_common() {
  cat <<'PARAMS'
(FixedInternalImagePixelType "float")
(MovingInternalImagePixelType "float")
(Registration "MultiResolutionRegistration")
(FixedImagePyramid "FixedSmoothingImagePyramid")
(MovingImagePyramid "MovingSmoothingImagePyramid")
(Interpolator "BSplineInterpolator")
(Metric "AdvancedMattesMutualInformation")
(Optimizer "AdaptiveStochasticGradientDescent")
(ResampleInterpolator "FinalBSplineInterpolator")
(Resampler "DefaultResampler")
(NumberOfResolutions 3)
(NumberOfHistogramBins 32)
(ImageSampler "RandomCoordinate")
(NumberOfSpatialSamples 4096)
(NewSamplesEveryIteration "true")
(BSplineInterpolationOrder 1)
(FinalBSplineInterpolationOrder 3)
(WriteResultImage "false")
(HowToCombineTransforms "Compose")
PARAMS
  printf '%s\n' "$@"
}

# elastix_affine_params FILE [DIMENSION]: an affine transform, 250 iterations
# a level, centred and scaled automatically.
elastix_affine_params() {
  local file="$1" extra=()
  [ -n "${2:-}" ] && extra=("(FixedImageDimension $2)" "(MovingImageDimension $2)")
  elastix_common '(Transform "AffineTransform")' '(MaximumNumberOfIterations 250)' \
    '(AutomaticTransformInitialization "true")' '(AutomaticScalesEstimation "true")' \
    "${extra[@]}" >"$file"
}

# elastix_bspline_params FILE SPACING FORMAT: a B-spline transform of final
# grid spacing SPACING mm (halved twice towards the finest level), 500
# iterations a level; transformix writes its images as FORMAT (nii, nii.gz).
elastix_bspline_params() {
  elastix_common '(Transform "BSplineTransform")' "(FinalGridSpacingInPhysicalUnits $2)" \
    '(GridSpacingSchedule 4 2 1)' '(MaximumNumberOfIterations 500)' \
    "(ResultImageFormat \"$3\")" >"$1"
}
