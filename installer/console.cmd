@echo off
rem Opens a command prompt in this folder, with marlinda in its PATH.
setlocal
set "programs=x64"
if "%PROCESSOR_ARCHITECTURE%" == "x86" if not defined PROCESSOR_ARCHITEW6432 set "programs=x86"
set "PATH=%~dp0%programs%;%PATH%"
cd /d "%~dp0"
echo "marlinda --help" lists the commands, README.txt has examples.
cmd /k
