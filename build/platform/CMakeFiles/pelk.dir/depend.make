# Empty dependencies file for pelk.
# This may be replaced when dependencies are built.
