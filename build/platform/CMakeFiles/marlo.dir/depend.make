# Empty dependencies file for marlo.
# This may be replaced when dependencies are built.
