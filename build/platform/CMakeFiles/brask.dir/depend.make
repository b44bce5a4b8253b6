# Empty dependencies file for brask.
# This may be replaced when dependencies are built.
