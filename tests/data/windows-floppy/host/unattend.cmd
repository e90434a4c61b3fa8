@echo off
rem Stand-in setup script: runs the tools upgrader from the floppy.
a:\upgrader.exe /s
