#!/bin/sh
# The demo: every available filter applied to the sample with settings that
# show what it does, then one contact sheet of the sample and all the results.
# Usage: demo.sh BITMAPFILTER OUTPUT_FOLDER
set -eu
bf=$1
out=$2
sample=$(dirname "$0")/sample.png

# The settings each filter gets, as `--set` takes them (`bitmapfilter describe
# KEY` lists the gadgets). A filter not listed runs with its defaults: they
# already show its effect (smooth's, its strongest, shows at full size more
# than on the sheet), or it has no dialog; so does a filter built later.
settings() {
    case $1 in
    gamma)      echo "gamma=2.2" ;;
    hsl)        echo "hue=120" ;;
    matrix)     echo "matrix_0=-2 matrix_1=-1 matrix_2=0
                      matrix_3=-1 matrix_4=1  matrix_5=1
                      matrix_6=0  matrix_7=1  matrix_8=2" ;;  # a relief
    pixelize)   echo "cell_size=12" ;;
    waves)      echo "amplitude=6 wavelength=10" ;;
    whirl)      echo "angle=240 pinch=25" ;;
    motionblur) echo "length=40 angle=20" ;;
    radialblur) echo "angle=30" ;;
    sharpen)    echo "kernel=1" ;;                            # eight neighbours
    spread)     echo "horizontal=8" ;;                        # the vertical spread follows
    details)    echo "kernel=2 strength=100" ;;               # 7 x 7
    gauss)      echo "radius_x=6" ;;                          # both radii: they are linked
    iirblur)    echo "radius_x=8 link=0 radius_y=1" ;;        # a horizontal smear
    unsharp)    echo "radius=3 amount=250" ;;
    selectivegauss) echo "radius=6 threshold=15" ;;           # smooths, keeps the edges
    structures) echo "kernel=11" ;;                           # its vertical lines alone
    threshold)  echo "levels=4" ;;
    despeckle)  echo "radius=3 output=100 feedback=50" ;;     # a painterly clean-up
    noise)      echo "amount=25" ;;
    oilify)     echo "brush=7" ;;
    esac
}

mkdir -p "$out"
list=$("$bf" list)
images=$sample
for key in $(echo "$list" | awk '!/ not available$/ { print $1 }'); do
    set --
    for setting in $(settings "$key"); do set -- "$@" --set "$setting"; done
    "$bf" apply "$key" "$sample" "$out/sample-$key.png" "$@"
    images="$images $out/sample-$key.png"
done
"$bf" contact-sheet "$out/contact-sheet.png" $images
